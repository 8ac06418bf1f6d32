#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The provider in programs that know nothing of it: keytool, jarsigner, CMS documents of another
# library: provider.sh JDK JAR. TLS is ProviderTest's matter.
set -euo pipefail
jdk=$1 jar=$(readlink -f "$2")
here=$(dirname "$(readlink -f "$0")")
. "$here/token.sh"
start_module softhsm2
cd "$TOKEN_DIR"
quietly "$here/provider/keys.sh"
uri="pkcs11:token=$QUARVEL_TOKEN?module-path=$QUARVEL_PKCS11_MODULE"
token=(-J-cp "-J$jar" -addprovider Quarvel -providerArg "$uri" -keystore NONE -storetype PKCS11
  -storepass:env QUARVEL_PIN)

# same NAME FILE: what comes in is the file
same() { diff - "$2" >&2 && echo "$1: works"; }

"$jdk/bin/keytool" "${token[@]}" -list 2>/dev/null | sed -n 's/, $//p' | sort >list
printf '%s, PrivateKeyEntry\n' 'bare-key 05' 'bare-key aa' ed25519 prime256v1 pss rsa1025 rsa2048 rsa512 secp521r1 |
  same keytool list

echo text >text
"$jdk/bin/jar" --create --file plain.jar text
for name in rsa2048 prime256v1 ed25519; do
  quietly "$jdk/bin/jarsigner" "${token[@]}" -signedjar $name.jar plain.jar $name
  for other in $(readlink -f /usr/lib/jvm/*/bin/jarsigner | sort -u); do
    quietly "$other" -verify -strict -keystore ca.p12 -storepass changeit $name.jar
  done
  echo "jarsigner with $name: works"
done

documents=$(printf ':%s' /usr/share/java/{bcpkix,bcprov,bcutil}.jar)
need /usr/share/java/bcpkix.jar
quietly "$jdk/bin/keytool" "${token[@]/%$uri/$uri\&x-writable=yes}" -providerName "Quarvel-$QUARVEL_TOKEN" \
  -genkeypair -keyalg EC -groupname secp384r1 -alias agreeing -dname CN=agreeing
quietly "$jdk/bin/keytool" "${token[@]}" -exportcert -alias agreeing -file agreeing.der
encrypt() { openssl cms -encrypt -binary -outform DER -in text -out "$1.cms" "${@:2}"; }
encrypt rsa2048 -aes256 rsa2048.der
encrypt rsa2048-oaep -aes256 -recip rsa2048.der -keyopt rsa_padding_mode:oaep
encrypt agreeing -aes192 -recip agreeing.der -keyopt ecdh_kdf_md:sha256
encrypt agreeing-1 -des3 agreeing.der
quietly "$jdk/bin/java" -cp "$jar$documents" "$here/provider/Documents.java" "$uri" "$QUARVEL_PIN"
for name in rsa2048 rsa2048-oaep agreeing agreeing-1; do same "CMS decrypted: $name" text <$name.decrypted; done
for name in SHA256withRSA SHA256withRSAandMGF1 SHA384withECDSA; do
  openssl cms -verify -binary -purpose any -inform DER -in $name.cms -content text -CAstore ca.der \
    2>log | same "CMS $name" text || { cat log; exit 1; }
done
openssl pkeyutl -verify -rawin -certin -inkey ed25519.der -keyform DER -in text -sigfile signature
