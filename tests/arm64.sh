#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The native tests and the demo for arm64, on the Java, SoftHSM2 and C library of this Debian for
# arm64, emulated: arm64.sh JAR DEMO CACHE. What is fetched and built stays in CACHE.
. "$(dirname "$(readlink -f "$0")")/elsewhere.sh"
root=$cache/arm64 build=$cache/arm64.build
unpack "$root" "$(. /etc/os-release && echo "$VERSION_CODENAME")" arm64 default-jre-headless softhsm2 libgtest-dev
cd "$tests/.."
cmake --fresh --preset linux-aarch64 -B "$build" -DBUILD_TESTING=ON \
  -DGTest_DIR="$root/usr/lib/aarch64-linux-gnu/cmake/GTest" >"$build.log"
cmake --build "$build" --target native_tests adapter_tests >>"$build.log" || { cat "$build.log"; exit 1; }

start_module softhsm2
fill_token
jdk=$(jdks "$root")
emulated=(env "QUARVEL_JVM=$jdk/lib/server/libjvm.so" qemu-aarch64 -L "$root")
passes 'arm64, adapter' "${emulated[@]}" "$build/tests/adapter_tests"
passes 'arm64, native tests' "${emulated[@]}" "$build/tests/native_tests"
passes 'arm64, native tests under -Xcheck:jni' env QUARVEL_JVM_OPTION=-Xcheck:jni \
  "${emulated[@]}" "$build/tests/native_tests"
demo 'arm64, demo' "$root/usr/lib/softhsm/libsofthsm2.so" "${emulated[@]}" "$jdk/bin/java"
