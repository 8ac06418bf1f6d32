#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Puts keys of OpenSSL on the token that token.sh has made, with certificates of one authority, and
# leaves all of them in TOKEN_DIR: NAME.key, NAME.der and both in NAME.p12.
set -euo pipefail
cd "$TOKEN_DIR"

# write TYPE FILE ID LABEL [OPTION]
write() {
  pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" --login --pin "$QUARVEL_PIN" --type "$1" \
    --write-object "$2" --id "$3" --label "$4" "${@:5}"
}

# both NAME
both() { openssl pkcs12 -export -inkey "$1.key" -in "$1.der" -out "$1.p12" -passout pass:changeit; }

request=(openssl req -x509 -nodes -days 2 -outform DER)
"${request[@]}" -newkey rsa:2048 -subj /CN=ca -keyout ca.key -out ca.der
both ca
write cert ca.der ca ca
id=0
for key in 'rsa2048 rsa:2048' 'rsa1025 rsa:1025' 'prime256v1 ec -pkeyopt ec_paramgen_curve:P-256' \
  'secp521r1 ec -pkeyopt ec_paramgen_curve:P-521' 'ed25519 ed25519' 'bare rsa:2048' 'rsa512 rsa:512' \
  'pss rsa-pss -pkeyopt rsa_pss_keygen_md:sha256 -pkeyopt rsa_pss_keygen_mgf1_md:sha256' 'ed448 ed448'; do
  read -r name kind <<<"$key"
  # shellcheck disable=SC2086  # several words
  "${request[@]}" -newkey $kind -subj "/CN=$name" -CA ca.der -CAkey ca.key -keyout "$name.key" \
    -out "$name.der" -addext extendedKeyUsage=codeSigning,clientAuth,serverAuth \
    -addext keyUsage=digitalSignature,keyEncipherment
  both "$name"
  # On a token only the certificate limits what a key is for.
  if [ "$name" = pss ]; then
    openssl rsa -traditional -in pss.key | sed s/RSA-PSS/RSA/ >unlimited
    openssl pkcs8 -topk8 -nocrypt -in unlimited -out pss.key
  fi
  softhsm2-util --import "$name.key" --token "$QUARVEL_TOKEN" --pin "$QUARVEL_PIN" --id 0$id \
    --label "$name-key"
  [ "$name" = bare ] || write cert "$name.der" 0$id "$name"
  id=$((id + 1))
done
# This certificate is the newest one of its key, but valid on no day.
openssl req -new -key rsa2048.key -subj /CN=expired |
  openssl x509 -req -days 0 -CA ca.der -CAkey ca.key -set_serial 7 -outform DER -out expired.der
write cert expired.der 00 expired
write cert ed25519.der 00 'of another key'
write cert secp521r1.der bb 'without key'
# This key has the label of another one.
write privkey rsa2048.key aa bare-key --always-auth
