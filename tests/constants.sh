#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Holds PKCS11Constants to the headers of p11-kit (2.40) and NSS (3.0), entry by entry, all that is
# not a vendor's own: constants.sh JAVAP CLASSES
set -eu
javap=$1 classes=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$javap" -constants -cp "$classes" it.quarvel.pkcs11.PKCS11Constants |
  sed -n 's/.* int \(CK[A-Z]_[^ ]*\) = \(.*\);/\1 \2/p' | sort >"$work/ours"
# NSS has other numbers for five return values than the standard.
own='_NSS|NETSCAPE|FLAGS_ONLY|CKM_NULL'
for header in 'p11-kit-1 p11-kit/pkcs11.h _NSS' \
  "nss pkcs11t.h $own|CKR_(EXCEEDED_MAX|FIPS_SELF|LIBRARY_LOAD|PIN_TOO_W|PUBLIC_KEY_INV)"; do
  # shellcheck disable=SC2086  # its words
  set -- $header
  {
    printf '#include <%s>\n#include <stdio.h>\nint main() {\n' "$2"
    # shellcheck disable=SC2046  # options
    echo "#include <$2>" | gcc -E -dM $(pkg-config --cflags "$1") - |
      sed -nE 's/^#define (CK[MAOKCFRSU]_\w+) .*/  printf("%s %d\\n", "\1", (int)(\1));/p' |
      grep -vE "$3"
    echo 'return 0; }'
  } >"$work/header.c"
  # shellcheck disable=SC2046
  gcc -w -o "$work/header" $(pkg-config --cflags "$1") "$work/header.c"
  # A vendor's own are negative, but for the start of that range and a flag.
  "$work/header" | grep -E ' [0-9]|VENDOR_DEFINED|CKF_EXTENSION' | sort >"$work/theirs"
  [ "$(wc -l <"$work/theirs")" -gt 500 ]
  if comm -23 "$work/theirs" "$work/ours" | grep .; then
    echo "of $2 these are missing, or have another value" >&2
    exit 1
  fi
done
