#!/bin/sh
# The library exports the native methods of the Java classes, nothing more and nothing less, the
# adapter its C_GetFunctionList, and both need the C library alone, the adapter without what some C
# libraries lack: exports.sh LIBRARY CLASSES JAVAP ADAPTER.
set -eu
library=$1 classes=$2 javap=$3 adapter=$4

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
test "$(nm -D --defined-only "$adapter" | awk '{print $3}')" = C_GetFunctionList
if nm -D "$adapter" | grep -E '_chk@|__tls_get_addr' || readelf -lW "$adapter" | grep TLS; then
  exit 1
fi
for file in "$library" "$adapter"; do
  needed=$(readelf -d "$file" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p')
  test "$needed" = libc.so.6
done
