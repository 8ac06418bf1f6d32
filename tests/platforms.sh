#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The ways in which a Java program can be put together: platforms.sh JDK JAR CLASSES. The program is
# the inspector, on a throwaway token.
set -euo pipefail
jdk=$1 jar=$2 classes=$3 java=$1/bin/java
version=$(sed -n 's/JAVA_VERSION="\([0-9]*\).*/\1/p' "$jdk/release")
. "$(dirname "$0")/token.sh"
quick_java
start_module softhsm2
work=$TOKEN_DIR main=it.quarvel.pkcs11.cli.Main

# runs NAME ARGUMENTS...
runs() {
  quietly "$java" "${@:2}" "$main" objects --pin env:QUARVEL_PIN
  echo "$1: works"
}

runs 'class path' -cp "$jar:$classes"
runs 'module path' --module-path "$jar" --add-modules it.quarvel.pkcs11 -cp "$classes"
"$jdk/bin/jlink" --module-path "$jar" --add-modules it.quarvel.pkcs11 --output "$work/image"
java=$work/image/bin/java runs 'jlink image' -cp "$classes"

# ---- Where the native library comes from ----

# fails TEXT ARGUMENTS...: the program does not start, and its error says so
fails() {
  ! "$java" -Djava.library.path=/nowhere "${@:2}" "$main" info >"$work/out" 2>&1 ||
    { echo "started with ${*:2}"; exit 1; }
  has "$1"
}
has() { grep -Pzq "(?s)$1" "$work/out" || { echo "no '$1' in:"; cat "$work/out"; exit 1; }; }

# A system package has the library beside a jar that carries none; "other" is of another version.
mkdir "$work/bare" "$work/system" "$work/other" "$work/copies"
unzip -q "$jar" -d "$work/bare"
find "$work/bare" -name "libquarvelpkcs11*.so" -exec mv -t "$work/system" {} +
sed 's/1\.16/0.99/' "$work/system/libquarvelpkcs11.so" >"$work/other/libquarvelpkcs11.so"
cp "$work/system/libquarvelpkcs11.so" "$work/my library.so"

runs 'named file' -cp "$jar:$classes" \
  -Dit.quarvel.pkcs11.library="$work/my library.so" -Djava.library.path="$work/other"
runs 'copy from the jar' -cp "$jar:$classes" -Djava.library.path="$work/other" \
  -Dit.quarvel.pkcs11.tmpdir="$work/copies"
rmdir "$work/copies" # the copy has gone
runs 'copy from the jar, in /dev/shm' -cp "$jar:$classes" -Djava.io.tmpdir=/nowhere
runs 'library of the system' -cp "$work/bare:$classes" \
  -Djava.library.path="$work/system"
# A tool that takes the libraries for texts has damaged them: loading one could end the process.
unzip -q "$jar" -d "$work/damaged"
find "$work/damaged" -name "*.so" -exec sed -i 's/[^ -~]/?/g' {} +
runs 'library of the system, the jar being damaged' -cp "$work/damaged:$classes" \
  -Djava.library.path="$work/system"
tried='resource \S*libquarvelpkcs11.so: .*library quarvelpkcs11.*: '
fails "${tried/: /: damaged}" -cp "$work/damaged:$classes"
fails 'cannot be loaded on Linux riscv64 with the C library /\S*libc\.so.*; the jar carries linux-.*-Dit.quarvel.pkcs11.library' \
  -cp "$jar:$classes" -Dos.arch=riscv64
fails 'the jar carries [^.]*/nowhere/file.so' \
  -cp "$jar:$classes" -Dit.quarvel.pkcs11.library=/nowhere/file.so
fails "$tried" -cp "$jar:$classes" -Dit.quarvel.pkcs11.tmpdir=/nowhere
# In these folders another user can exchange what is there.
mkdir -p "$work/theirs/mine"
chmod 777 "$work/theirs"
fails 'others may write to \S*/theirs\)' -cp "$jar:$classes" -Dit.quarvel.pkcs11.tmpdir="$work/theirs/mine"
if chmod 755 "$work/theirs" && chown nobody "$work/theirs" 2>/dev/null; then
  fails '/theirs belongs to another user' -cp "$jar:$classes" -Dit.quarvel.pkcs11.tmpdir="$work/theirs/mine"
fi
find "$work" -name 'quarvelpkcs11-*' | diff /dev/null -
LC_ALL=C fails "$tried" -cp "$jar:$classes" -Dit.quarvel.pkcs11.tmpdir=/nowhere/é
for argument in -Dit.quarvel.pkcs11.library="$work/other/libquarvelpkcs11.so" \
  -Djava.library.path="$work/other"; do
  fails "has version 0.99.*loaded: $work/other/libquarvelpkcs11.so" "$argument" -cp "$work/bare:$classes"
done

if [ "$version" -ge 24 ]; then
  deny=--illegal-native-access=deny
  runs 'native access denied but to the class path' $deny --enable-native-access=ALL-UNNAMED \
    -cp "$jar:$classes"
  runs 'native access denied but to the module' $deny \
    --enable-native-access=it.quarvel.pkcs11 --module-path "$jar" --add-modules it.quarvel.pkcs11 \
    -cp "$classes"
  "$java" $deny -jar "${jar%.jar}-cli.jar" info --module none >"$work/out" 2>&1 || true
  has 'has to name the file of a PKCS#11 module'
  echo 'native access denied but to the inspector: works'
  fails 'start it with --enable-native-access=ALL-UNNAMED' $deny -cp "$jar:$classes"
  echo 'native access denied: the error names the flag'
fi
