#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Makes issuers of one name in TOKEN_DIR, and certificates that they signed for the key of bare.key:
# NAME.der each. old, new, same and expired have one key; rolled has another, signed by that one.
set -euo pipefail
cd "$TOKEN_DIR"
: >issued
printf '%s\n' '[one]' 'database = issued' 'new_certs_dir = .' 'default_md = sha256' 'unique_subject = no' \
  'rand_serial = yes' 'policy = names' '[names]' 'commonName = supplied' >ca.cnf

# signed NAME KEY SUBJECT FROM TO SIGNER...: FROM and TO are years
signed() {
  openssl req -new -key "$2.key" -subj "/CN=$3" -out csr
  openssl ca -batch -notext -config ca.cnf -name one -in csr -startdate "${4}0101000000Z" -enddate "${5}0101000000Z" \
    -out "$1.pem" "${@:6}"
  openssl x509 -in "$1.pem" -outform DER -out "$1.der"
}

openssl ecparam -genkey -name prime256v1 -out first.key
openssl ecparam -genkey -name prime256v1 -out second.key
signed old first i 2001 2099 -selfsign -keyfile first.key
signed new first i 2011 2099 -selfsign -keyfile first.key
signed same first i 2011 2099 -selfsign -keyfile first.key
signed expired first i 2021 2022 -selfsign -keyfile first.key
signed rolled second i 2011 2099 -cert old.pem -keyfile first.key
signed ofFirst bare leaf 2011 2099 -cert old.pem -keyfile first.key
signed ofSecond bare leaf 2011 2099 -cert rolled.pem -keyfile second.key
