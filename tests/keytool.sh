#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Has keytool make, certify, rename, import and delete keys on a token, and pkcs11-tool and OpenSSL say
# what is there after each step: keytool.sh JDK JAR [MODULE [KIND...]], a kind as -keyalg has it.
set -euo pipefail
jdk=$1 jar=$(readlink -f "$2") module=${3-softhsm2}
. "$(dirname "$(readlink -f "$0")")/token.sh"
quick_java
export LC_ALL=C.UTF-8 # for an alias beyond ASCII
start_module "$module"
[ "$module" != nss ] || QUARVEL_TOKEN=demo QUARVEL_PIN=1234 # the other slot keeps nothing
cd "$TOKEN_DIR"

uri="pkcs11:${QUARVEL_TOKEN:+token=$QUARVEL_TOKEN}?module-path=$QUARVEL_PKCS11_MODULE&x-writable=yes"
try() { "$jdk/bin/keytool" -J-cp "-J$jar" -addprovider Quarvel -providerArg "$uri" "$@" >log 2>&1; }
store=(-storetype PKCS11 -keystore NONE -storepass "$QUARVEL_PIN" -providerName "Quarvel-${QUARVEL_TOKEN:-token}")
die() { echo "$1:" && cat log && exit 1; }
does() { try "$1" "${store[@]}" "${@:2}" || die "keytool $*"; }
refuses() { { ! try "${@:2}" && grep -q "$1" log; } || die "no refusal: keytool ${*:2}"; }

# holds STEP ENTRY...: the token holds these and nothing else, NAME a key pair with its certificate,
# k:NAME the private key of one, p:NAME the public one, c:NAME a certificate
holds() {
  pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" ${QUARVEL_TOKEN:+--token-label "$QUARVEL_TOKEN"} --login --pin "$QUARVEL_PIN" --list-objects 2>log |
    awk '/ Object;/ { kind = $1 == "Certificate" ? "c" : $1 == "Private" ? "k" : "p" }
      $1 == "label:" { print kind ":" $2 }' | sort >objects
  printf '%s\n' "${@:2}" | sed -E '/^$/d; s/^[^:]+$/k:&\np:&\nc:&/' | sort | diff - objects >&2 || die "$1"
  echo "$1: works"
}

does -genkeypair -alias ca -keyalg RSA -keysize 2048 -dname CN=ca -ext bc:c
does -exportcert -alias ca -rfc -file ca.pem
kinds=("${@:4}")
[ $# -gt 3 ] || kinds=('EC -groupname secp521r1' Ed25519)
other=$(printf '\u20ac;?%%,\\"%.0s' {1..40})
for kind in "${kinds[@]}"; do
  # shellcheck disable=SC2086  # several words
  does -genkeypair -alias one -keyalg $kind -dname CN=one
  holds "$kind: made" ca one
  does -certreq -alias one -file request
  openssl req -verify -noout -in request 2>log
  for days in +1 -9; do # the first reply is newer than what is there, the other one older
    does -gencert -alias ca -infile request -outfile reply -rfc -startdate ${days}d
    does -importcert -noprompt -alias one -file reply
    does -exportcert -alias one -rfc -file stored
    openssl verify -no_check_time -CAfile ca.pem stored >>log
    diff <(openssl x509 -in reply -text) <(openssl x509 -in stored -text) >>log || die importcert
  done
  holds "$kind: certified" ca one
  does -changealias -alias one -destalias "$other"
  holds "$kind: renamed" ca "$other"
  does -delete -alias "$other"
  holds "$kind: deleted" ca
done

openssl req -x509 -nodes -newkey rsa:2048 -subj /CN=root -keyout root.key -out root.pem 2>log
openssl req -x509 -nodes -newkey rsa:2048 -subj /CN=leaf -CA root.pem -CAkey root.key -keyout leaf.key \
  -out leaf.pem 2>log
openssl pkcs12 -export -inkey leaf.key -in leaf.pem -certfile root.pem -name leaf -out leaf.p12 \
  -passout pass:changeit
import() {
  try -importkeystore -srckeystore leaf.p12 -srcstorepass changeit -noprompt "${store[@]/#-/-dest}" "$@" ||
    die import
}
import
import # again: nothing comes twice
holds imported ca leaf c:
import -srcalias leaf -destalias ca
grep -q 'not imported' log || die 'import over another key'
refuses 'security officer' -importcert -noprompt -alias trusted -file root.pem "${store[@]}"
uri=${uri%&*} refuses 'read-only' -delete -alias ca "${store[@]}"
holds refused ca leaf c:
does -delete -alias leaf
does -delete -alias ca
holds emptied ''
