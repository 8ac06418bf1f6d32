#!/bin/bash
# The provider in programs that know nothing of it: keytool, jarsigner, TLS with OpenSSL at the other
# end, CMS and PDF documents of other libraries: provider.sh JDK JAR. Keys of OpenSSL on a throwaway
# token, one of them without a certificate.
set -euo pipefail
jdk=$1 jar=$(readlink -f "$2")
here=$(dirname "$(readlink -f "$0")")
. "$here/token.sh"
start_module softhsm2
cd "$TOKEN_DIR"
uri="pkcs11:token=$QUARVEL_TOKEN?module-path=$QUARVEL_PKCS11_MODULE"

# write FILE ID: a certificate
write() {
  openssl x509 -in "$1.pem" -outform DER -out "$1.der"
  pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" --login --pin "$QUARVEL_PIN" --id "$2" --label "$1" \
    --write-object "$1.der" --type cert >/dev/null 2>&1
}

request=(openssl req -x509 -nodes -days 2)
"${request[@]}" -newkey rsa:2048 -subj /CN=ca -keyout ca.key -out ca.pem 2>/dev/null
write ca ca
number=0
for kind in rsa:2048 'ec -pkeyopt ec_paramgen_curve:P-256' ed25519 rsa:3072; do
  name=${kind%%[: ]*}
  [ "$kind" != rsa:3072 ] || name=bare
  number=$((number + 1))
  # shellcheck disable=SC2086  # several words
  "${request[@]}" -newkey $kind -subj "/CN=$name" -addext extendedKeyUsage=codeSigning,clientAuth \
    -addext keyUsage=digitalSignature,keyEncipherment -CA ca.pem -CAkey ca.key -keyout "$name.key" \
    -out "$name.pem" 2>/dev/null
  softhsm2-util --import "$name.key" --token "$QUARVEL_TOKEN" --pin "$QUARVEL_PIN" --label "$name" \
    --id 0$number >/dev/null
  [ "$name" = bare ] || write "$name" 0$number
done
keytool -importcert -noprompt -alias ca -file ca.pem -keystore ca.p12 -storepass changeit 2>/dev/null
token=(-J-cp "-J$jar" -addprovider Quarvel -providerArg "$uri" -keystore NONE -storetype PKCS11
  -storepass "$QUARVEL_PIN")

# same NAME FILE: what comes in is the file
same() { diff - "$2" >&2 && echo "$1: works"; }

"$jdk/bin/keytool" "${token[@]}" -list 2>/dev/null | sed -n 's/, $//p' | sort >list
printf '%s, PrivateKeyEntry\n' bare ec ed25519 rsa | same keytool list

echo text >text
"$jdk/bin/jar" --create --file plain.jar text
for name in rsa ec ed25519; do
  "$jdk/bin/jarsigner" "${token[@]}" -signedjar $name.jar plain.jar $name >log 2>&1 || { cat log; exit 1; }
  for other in $(readlink -f /usr/lib/jvm/*/bin/jarsigner | sort -u); do
    "$other" -verify -strict -keystore ca.p12 -storepass changeit $name.jar >log 2>&1 ||
      { echo "$other:"; cat log; exit 1; }
  done
  echo "jarsigner with $name: works"
done

# connects TITLE {PROTOCOL KEY}...: one server for each, one client for all
port=$((20000 + RANDOM % 10000))
connects() {
  local title=$1 servers=() connections=() expected=()
  shift
  rm -f server.*
  while [ $# -gt 0 ]; do
    port=$((port + 1))
    openssl s_server -accept $port -cert ca.pem -key ca.key -CAfile ca.pem -Verify 1 \
      -verify_return_error -rev "-$1" -naccept 1 >server.$port 2>&1 &
    servers+=($!)
    connections+=("${1/tls1_/TLSv1.}" "$2" "$port")
    expected+=("$2" olleh)
    for _ in $(seq 100); do
      ! grep -q ACCEPT server.$port 2>/dev/null || break
      sleep 0.05
    done
    shift 2
  done
  "$jdk/bin/java" -cp "$jar" "$here/provider/Client.java" "$uri" "$QUARVEL_PIN" ca.p12 \
    "${connections[@]}" 2>log >answers || { cat log server.*; exit 1; }
  wait "${servers[@]}"
  paste -d ' ' <(sed -n 's/^Peer certificate: CN = //p' server.*) answers | xargs >connected
  echo "${expected[@]}" | same "$title" connected
}

connects 'TLS 1.3 and 1.2 with rsa, ec and ed25519' \
  tls1_3 rsa tls1_3 ec tls1_3 ed25519 tls1_2 rsa tls1_2 ec tls1_2 ed25519
# The first one that is taken away stays.
echo 'slots.mechanisms = -CKM_MD5,CKM_RSA_X_509' >>"$SOFTHSM2_CONF"
connects "TLS 1.3 by the token's own PSS" tls1_3 rsa
grep -qx 'Signature type: RSA-PSS' server.*
sed -i "\$s/\$/$(printf ',CKM_SHA%d_RSA_PKCS_PSS' 1 224 256 384 512)/" "$SOFTHSM2_CONF"
connects 'TLS 1.2 by a token without PSS' tls1_2 rsa
grep -qx 'Signature type: RSA' server.*
sed -i '$d' "$SOFTHSM2_CONF"

documents=$(printf ':%s' /usr/share/java/{bcpkix,bcprov,bcutil,pdfbox2,fontbox2,commons-logging}.jar)
if [ ! -e /usr/share/java/bcpkix.jar ] || [ ! -e /usr/share/java/pdfbox2.jar ]; then
  echo "skipped: CMS and PDF, whose libraries libbcpkix-java and libpdfbox2-java are not here"
  exit 0
fi
openssl cms -encrypt -binary -aes256 -outform DER -in text -out encrypted.cms rsa.pem
"$jdk/bin/java" -cp "$jar$documents" "$here/provider/Documents.java" "$uri" "$QUARVEL_PIN" . >log 2>&1 ||
  { cat log; exit 1; }
same 'CMS decrypted' text <decrypted
for name in SHA256withRSA SHA256withRSAandMGF1 SHA384withECDSA pdf; do
  content=text
  [ $name != pdf ] || content=pdf
  openssl cms -verify -binary -purpose any -inform DER -in $name.cms -content $content -CAfile ca.pem \
    2>log | same "CMS $name" $content || { cat log; exit 1; }
done
