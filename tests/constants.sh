#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Holds PKCS11Constants, which are those up to PKCS#11 3.0, to the headers of p11-kit and NSS, all
# that is not a vendor's own: constants.sh JAVAP CLASSES
set -eu
export LC_ALL=C
javap=$1 classes=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$javap" -constants -cp "$classes" it.quarvel.pkcs11.PKCS11Constants |
  sed -n 's/.* int \(CK[A-Z]_[^ ]*\) = \(.*\);/\1 \2/p' | sort >"$work/ours"
# NSS has other numbers for five return values than the standard.
own='_NSS|NETSCAPE|FLAGS_ONLY|CKM_NULL|CKP_(PKCS5|VENDOR)'
for header in 'p11-kit-1 p11-kit/pkcs11.h _NSS|CKP_VENDOR' \
  "nss pkcs11t.h $own|CKR_(EXCEEDED_MAX|FIPS_SELF|LIBRARY_LOAD|PIN_TOO_W|PUBLIC_KEY_INV)"; do
  # shellcheck disable=SC2086  # its words
  set -- $header
  {
    printf '#include <%s>\n#include <stdio.h>\nint main() {\n' "$2"
    # shellcheck disable=SC2046  # options
    echo "#include <$2>" | gcc -E -dM $(pkg-config --cflags "$1") - |
      sed -nE 's/^#define (CK[MAOKCFRSUP]_\w+) .*/  printf("%s %d\\n", "\1", (int)(\1));/p' |
      grep -vE "$3"
    echo 'return 100 * CRYPTOKI_VERSION_MAJOR + CRYPTOKI_VERSION_MINOR > 300; }'
  } >"$work/header.c"
  # shellcheck disable=SC2046
  gcc -w -o "$work/header" $(pkg-config --cflags "$1") "$work/header.c"
  # A header of a later version has more: what both know is compared.
  asked='-a 1'
  "$work/header" >"$work/all" || asked=
  # A vendor's own numbers are negative, but for the start of that range and a flag.
  grep -E ' [0-9]|VENDOR_DEFINED|CKF_EXTENSION' "$work/all" | sort >"$work/theirs"
  # shellcheck disable=SC2086  # two words
  join $asked "$work/theirs" "$work/ours" >"$work/both"
  [ "$(wc -l <"$work/both")" -gt 500 ]
  if awk '$2 != $3' "$work/both" | grep .; then
    echo "of $2 (second column) these are missing, or have another value (third)" >&2
    exit 1
  fi
done
