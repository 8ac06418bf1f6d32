#!/bin/sh
# The library exports the native methods of the Java classes, nothing more and nothing less, and
# needs the C library alone: exports.sh LIBRARY CLASSES JAVAP.
set -eu
library=$1 classes=$2 javap=$3

declared() {
  for class in NativePKCS11 NativePKCS11Slot NativePKCS11Session NativePKCS11Object; do
    "$javap" -p -cp "$classes" "it.quarvel.pkcs11.nat.$class" |
      sed -n "s/.* native .* \([A-Za-z0-9]*\)(.*/Java_it_quarvel_pkcs11_nat_${class}_\1/p"
  done
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
declared | sort >"$work/declared"
nm -D --defined-only "$library" | awk '{print $3}' | sort >"$work/exported"
diff "$work/declared" "$work/exported"
test "$(wc -l <"$work/declared")" -eq 88
needed=$(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p')
test "$needed" = libc.so.6
