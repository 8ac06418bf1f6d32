#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Prints the releases of CHANGELOG.md in the form of debian/changelog.
set -eu
between=
sed -nE 's/^## ([0-9.]+) - ([0-9-]+)$/\1 \2/p' "$(dirname "$0")/../CHANGELOG.md" |
  while read -r version day; do
    printf "$between%s\n\n%s\n\n%s\n" "quarvel-pkcs11 ($version) unstable; urgency=medium" \
      "  * Release $version, see CHANGELOG.md." \
      " -- the quarvel-pkcs11 authors <quarvel-pkcs11@localhost>  $(LC_ALL=C date --utc --date "$day" -R)"
    between='\n'
  done
