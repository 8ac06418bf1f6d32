#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Side-by-side benchmarks: run.sh [--quick | --only WORD]. Expects the built library. --quick prints
# the tables in about a minute, --only the rows with that word; the full run takes some minutes,
# wants a quiet machine, and writes the charts and, in build/bench/, the parts of
# docs/performance.md. QUARVEL_BUILD and QUARVEL_DOCS name other folders than build/ and docs/.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

case $#${1-} in
  0 | 1--quick | 2--only) ;;
  *) sed -n '3,7p' bench/run.sh >&2; exit 2 ;;
esac

build=$(realpath "${QUARVEL_BUILD:-build}")
docs=${QUARVEL_DOCS:-docs}
out=$build/bench
jdk=${JAVA_HOME:-$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")}
exports=(--add-modules jdk.crypto.cryptoki
  --add-exports "jdk.crypto.cryptoki/sun.security.pkcs11.wrapper=ALL-UNNAMED")
# One fixed heap and the simplest collector, so that no thread of the virtual machine competes.
table=("$jdk/bin/java" -Xms512m -Xmx512m -XX:+UseSerialGC --enable-native-access=ALL-UNNAMED
  "${exports[@]}" -cp "$out/harness" "-Dbench.build=$build")

# compile OUTPUT SOURCE: compiles with the library's optimisation, without its hardening. Loops are
# aligned: the floor must not lose by the place at which one happens to lie.
compile() {
  local p11kit
  read -ra p11kit <<<"$(pkg-config --cflags p11-kit-1)"
  g++ -std=c++20 -O2 -falign-loops=32 -g1 -Wall -Wextra -Werror -fPIC -fvisibility=hidden -shared -Wl,-z,now \
    -Iheader201 -I"$build/jni-headers" -I"$out/headers" -I"$jdk/include" -I"$jdk/include/linux" \
    "${p11kit[@]}" -o "$out/$1" "bench/$2"
}

build_bench() {
  [ -e "$build/libquarvelpkcs11.so" ] || { echo "build the library first" >&2; exit 1; }
  rm -rf "$out"
  mkdir -p "$out/library"
  "$jdk/bin/javac" -Xlint:all -cp "$build/classes" -d "$out/harness" -h "$out/headers" \
    "${exports[@]}" bench/java/*.java
  # Each class loader has to load its own copy of this class, for its own native library.
  mv "$out"/harness/Library*.class "$out/library"
  compile instantModule.so instantModule.cpp
  compile libfloor.so floor.cpp
  cp "$out/libfloor.so" "$out/libsecondfloor.so"
  "$jdk/bin/javac" -cp "$build/classes" -d "$out/startUp" tests/programs/StartUp.java
}

# ---- Each function prints the part of the page that has its name. A new one goes here, into
# write_parts and into the page, its Java into Table ----

machine() {
  echo "Measured by \`./dev bench\` on $(date +%F): $(sed -n 's/^model name.*: //p' /proc/cpuinfo |
    head -n 1), $(nproc) cores, $(uname -sr), $("$jdk/bin/java" -version 2>&1 | tail -n 1)."
}

instant() { "${table[@]}" "$@" Table instant; }

growth() { "${table[@]}" "$@" Table growth; }

token() (
  . tests/token.sh
  start_module softhsm2
  "${table[@]}" "$@" Table token
)

# The same, while the C library keeps freed blocks of up to 32 MiB.
keepingMemory() {
  MALLOC_MMAP_THRESHOLD_=33554432 MALLOC_TRIM_THRESHOLD_=67108864 MALLOC_TOP_PAD_=16777216 \
    token -Dbench.only=AES
}

adapter() {
  echo '| Nanoseconds a call | directly | through the adapter | of two threads, directly | through the adapter |'
  echo '|---|---:|---:|---:|---:|'
  export QUARVEL_PKCS11_ADAPTED_MODULE=$out/instantModule.so
  "${table[@]}" "-Dbench.handles=handles that pass" Table adapter
  INSTANT_HANDLE=0x700000007 "${table[@]}" "-Dbench.handles=handles with a number" Table adapter
}

threads() (
  . tests/token.sh
  start_module softhsm2
  echo "| Signatures a second | through the adapter | JDK's wrapper | bare C |"
  echo '|---|---:|---:|---:|'
  QUARVEL_PKCS11_ADAPTED_MODULE=$QUARVEL_PKCS11_MODULE "${table[@]}" Table threads
)

startUp() {
  echo "| Java | classes | JDK's | ratio | ms | JDK's | ratio |"
  echo '|---|---:|---:|---:|---:|---:|---:|'
  readlink -f /usr/lib/jvm/*/lib/server/libjvm.so | sed 's#/lib/server/.*##' | sort -u |
    xargs tests/startUp.sh 21 "$build/quarvel-pkcs11.jar" "$out/startUp"
}

# ---- All of the page ----

write_parts() {
  local part
  for part in machine instant token keepingMemory growth adapter threads startUp; do
    "$part" | tee "$out/$part.md"
  done
  gnuplot -e "parts='$out/'; docs='$docs/'" bench/charts.gnuplot
}

build_bench
case ${1-} in
  --only) instant "-Dbench.only=$2" ;;
  --quick) instant -Dbench.quick=true && token -Dbench.quick=true ;;
  *) write_parts ;;
esac
