#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Each variant in a jar: the library exports the native methods of the Java classes, nothing more and
# nothing less, the adapter its C_GetFunctionList and the table by which its copies find each other.
# Both load on every C library from glibc 2.17 on and on musl, the adapter also where thread-local
# storage is dear: exports.sh JAR JAVAP.
set -eu
jar=$1 javap=$2

declared() {
  for class in NativePKCS11 NativePKCS11Slot NativePKCS11Session NativePKCS11Object; do
    "$javap" -p -cp "$jar" "it.quarvel.pkcs11.nat.$class" |
      sed -n "s/.* native .* \([A-Za-z0-9]*\)(.*/Java_it_quarvel_pkcs11_nat_${class}_\1/p"
  done
}
exported() { nm -D --defined-only "$1" | awk '{print $3}' | sort; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
declared | sort >"$work/declared"
test -s "$work/declared"
unzip -q "$jar" -d "$work" '*.so'
for variant in "$work"/it/quarvel/pkcs11/nat/linux-*; do
  library=$variant/libquarvelpkcs11.so adapter=$variant/libquarvelpkcs11adapter.so
  exported "$library" | diff "$work/declared" -
  test "$(exported "$adapter" | xargs)" = 'C_GetFunctionList quarvel_pkcs11_adapter_copies_1'
  { nm -D "$adapter"; readelf -lW "$adapter"; } | grep -E '__tls_get_addr|TLS' | diff /dev/null -
  # The stack protector's secret is the loader's on arm64.
  loader=
  [ "${variant##*-}" = aarch64 ] && loader=' ld-linux-aarch64.so.1'
  for file in "$library" "$adapter"; do
    needed=$(readelf -d "$file" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | xargs)
    test "$needed" = "libdl.so.2 libc.so.6$loader" || { echo "${file##*nat/} needs $needed"; exit 1; }
    newest=$(readelf -V "$file" | sed -n 's/.* Name: \(GLIBC[^ ]*\).*/\1/p' | sort -V | tail -n 1)
    printf '%s\nGLIBC_2.17\n' "$newest" | sort -VC || { echo "${file##*nat/} needs $newest"; exit 1; }
    nm -D "$file" | grep '_chk@' | diff /dev/null -
  done
done
