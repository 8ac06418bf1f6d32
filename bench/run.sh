#!/usr/bin/env bash
# Side-by-side benchmarks: run.sh [--quick | --only WORD]. Expects the built library. --quick prints
# ratios in under a minute, --only those of the operations with that word in their names; the full
# run takes some minutes, writes docs/performance.md and wants a quiet machine. QUARVEL_BUILD and
# QUARVEL_DOCS name other folders than build/ and docs/.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

BENCH_PACKAGES=(gnuplot-nox libjna-java libjna-jni)

build=$(realpath "${QUARVEL_BUILD:-build}")
docs=${QUARVEL_DOCS:-docs}
out=$build/bench
jdk=${JAVA_HOME:-$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")}
classpath=$out/harness:/usr/share/java/jna.jar
exports=(--add-modules jdk.crypto.cryptoki
  --add-exports "jdk.crypto.cryptoki/sun.security.pkcs11.wrapper=ALL-UNNAMED")
# One fixed heap and the simplest collector, so that no thread of the virtual machine competes.
options=(-Xms512m -Xmx512m -XX:+UseSerialGC --enable-native-access=ALL-UNNAMED
  -Djna.boot.library.path=/usr/lib/x86_64-linux-gnu/jni
  -Dbench.classes="$build/classes/" -Dbench.binding="$out/binding/" "${exports[@]}")

require() {
  local package
  for package in "${BENCH_PACKAGES[@]}"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      { echo "install first: ${BENCH_PACKAGES[*]}" >&2; exit 1; }
  done
  [ -e "$build/libquarvelpkcs11.so" ] || { echo "build the library first" >&2; exit 1; }
}

# compile OUTPUT SOURCE: the library's optimisation, without its hardening.
compile() {
  local p11kit
  read -ra p11kit <<<"$(pkg-config --cflags p11-kit-1)"
  g++ -std=c++20 -O2 -g1 -Wall -Wextra -Werror -fPIC -fvisibility=hidden -shared -Wl,-z,now \
    -Iheader201 -I"$build/jni-headers" -I"$out/headers" -I"$jdk/include" -I"$jdk/include/linux" \
    "${p11kit[@]}" -o "$out/$1" "bench/$2"
}

build_bench() {
  rm -rf "$out"
  mkdir -p "$out"
  "$jdk/bin/javac" -Xlint:all -cp /usr/share/java/jna.jar -d "$out/harness" \
    -h "$out/headers" "${exports[@]}" bench/java/*.java 2>"$out/javac.log" ||
    { cat "$out/javac.log" >&2; exit 1; }
  "$jdk/bin/javac" -Xlint:all -Werror -cp "$build/classes:$out/harness" -d "$out/binding" \
    bench/binding/*.java
  compile instantModule.so instantModule.cpp
  compile libfloor.so floor.cpp
  cp "$out/libfloor.so" "$out/libsecondfloor.so"
  compile libbare.so bare.cpp
}

run() {
  local main=$1
  shift
  "$jdk/bin/java" "${options[@]}" -cp "$classpath" "$main" "$@"
}

instant() {
  run InstantBench "$out/instantModule.so" "$build/libquarvelpkcs11.so" "$out/libfloor.so" \
    "$out/libsecondfloor.so" "$out/instant.tsv" "$@"
}

# on_token RESULTS [--quick]
on_token() {
  # The inner shell is the one that knows the throwaway token.
  # shellcheck disable=SC2016
  tests/withToken.sh bash -c '"$@" "$QUARVEL_MODULE" "$QUARVEL_PIN" '"\
    '$build/libquarvelpkcs11.so' '$out/libbare.so' '$out/$1' ${2-}" bash \
    "$jdk/bin/java" "${options[@]}" -cp "$classpath" TokenBench
}

growth() {
  run GrowthBench "$out/instantModule.so" "$build/libquarvelpkcs11.so" "$out/libfloor.so" \
    "$out/growth.tsv"
}

memory() {
  # A heap that is wholly there from the start, so that only what is native can grow.
  options+=(-Xms64m -Xmx64m -XX:+AlwaysPreTouch)
  run MemoryBench "$out/instantModule.so" "$build/libquarvelpkcs11.so" 1000000 \
    "$out/memory.tsv" >/dev/null
}

report() {
  mkdir -p "$docs"
  run Report "$out" "$docs"
  gnuplot -e "data='$out/ratios.dat'; output='$docs/performance-ratios.svg'" bench/ratios.gnuplot
  gnuplot -e "data='$out/growth.dat'; output='$docs/performance-growth.svg'" bench/growth.gnuplot
}

require
build_bench
case ${1-} in
  --only) instant "$@" ;;
  --quick)
    instant "$@"
    on_token token.tsv --quick
    ;;
  '')
    instant
    on_token token.tsv
    # Blocks of up to 32 MiB stay with the C library instead of going back to the system.
    MALLOC_MMAP_THRESHOLD_=33554432 MALLOC_TRIM_THRESHOLD_=67108864 MALLOC_TOP_PAD_=16777216 \
      on_token tokenKeepingMemory.tsv
    growth
    memory
    report
    ;;
  *) sed -n '2,5p' bench/run.sh >&2; exit 2 ;;
esac
