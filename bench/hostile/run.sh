#!/bin/bash
# Compares this library with the JDK's own wrapper on a misbehaving module: run.sh [JDK] [BUILD].
# It takes some minutes, since each case has a virtual machine of its own.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$here/../..
jdk=${1:-$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")}
build=$(cd "${2:-$root/build}" && pwd)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC2046  # flags are words
g++ -std=c++20 -shared -fPIC -I "$root/tests/native" -I "$root/header201" \
  $(pkg-config --cflags p11-kit-1) "$here/lies.cpp" "$build/tests/libscripted.so" \
  -Wl,-rpath,"$build/tests" -o "$work/liblies.so"
wrapper=jdk.crypto.cryptoki/sun.security.pkcs11.wrapper
"$jdk/bin/javac" --add-modules=jdk.crypto.cryptoki --add-exports="$wrapper=ALL-UNNAMED" \
  -cp "$build/quarvel-pkcs11.jar" -d "$work" "$here/Hostile.java"

# Keeps a list of 2^31 items, which a subject may try to hold twice, from exhausting the machine.
ulimit -v 12582912

# The names stand in the order of their numbers.
sed -n 's/^ *{"\(.*\)",.*/\1/p' "$root/tests/native/misbehaviours.cpp" |
  tr '\n' '\0' |
  xargs -0 "$jdk/bin/java" -cp "$work:$build/quarvel-pkcs11.jar" Hostile \
    "$build/tests/libscripted.so" "$work/liblies.so"
