#!/bin/bash
# The native tests and the demo for arm64, on the Java, SoftHSM2 and C library of this Debian for
# arm64, emulated: arm64.sh JAR DEMO CACHE. What is fetched and built stays in CACHE.
set -euo pipefail
tests=$(dirname "$(readlink -f "$0")")
mkdir -p "$3"
jar=$(readlink -f "$1") demo=$(readlink -f "$2") cache=$(readlink -f "$3")
. "$tests/token.sh"
. "$tests/unpack.sh"
root=$cache/arm64 build=$cache/arm64.build
unpack "$root" "$(. /etc/os-release && echo "$VERSION_CODENAME")" arm64 default-jre-headless softhsm2 libgtest-dev
cd "$tests/.."
cmake --fresh --preset linux-aarch64 -B "$build" -DQUARVEL_TESTS=ON \
  -DGTest_DIR="$root/usr/lib/aarch64-linux-gnu/cmake/GTest" >"$build.log"
cmake --build "$build" --target native_tests adapter_tests >>"$build.log" || { cat "$build.log"; exit 1; }

start_module softhsm2
fill_token
jdk=$(jdks "$root")
emulated=(env "QUARVEL_JVM=$jdk/lib/server/libjvm.so" qemu-aarch64 -L "$root")

# passes NAME COMMAND...: without what -Xcheck:jni has to say
passes() {
  if "${@:2}" >"$TOKEN_DIR/out" 2>&1 && ! grep -E '(FATAL ERROR|WARNING) in native method' "$TOKEN_DIR/out"; then
    echo "arm64, $1: $(tail -n 1 "$TOKEN_DIR/out")"
  else
    cat "$TOKEN_DIR/out"
    exit 1
  fi
}
passes 'adapter' "${emulated[@]}" "$build/tests/adapter_tests"
passes 'native tests' "${emulated[@]}" "$build/tests/native_tests"
passes 'native tests under -Xcheck:jni' env QUARVEL_JVM_OPTION=-Xcheck:jni \
  "${emulated[@]}" "$build/tests/native_tests"
passes 'demo' "${emulated[@]}" "$jdk/bin/java" -cp "$jar:$demo" Demo \
  --module "$root/usr/lib/softhsm/libsofthsm2.so" --pin "$QUARVEL_PIN" --label "$QUARVEL_TOKEN" \
  --key demo-key --write
