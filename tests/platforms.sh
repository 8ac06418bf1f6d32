#!/bin/sh
# The ways in which a Java program can be put together: platforms.sh JDK JAR CLASSES. Each runs the
# same small program on a throwaway token.
set -eu
jdk=$1 jar=$2 classes=$3
version=$(sed -n 's/JAVA_VERSION="\([0-9]*\).*/\1/p' "$jdk/release")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# runs NAME JAVA ARGUMENTS...
runs() {
  name=$1
  shift
  # shellcheck disable=SC2016  # for the inner shell, which knows the token
  "$(dirname "$0")/withToken.sh" sh -c '"$@" TraceLog "$QUARVEL_MODULE" "$QUARVEL_PIN"' sh "$@" \
    >"$work/out" 2>&1 || { echo "$name failed:"; cat "$work/out"; exit 1; }
  echo "$name: works"
}

runs 'class path' "$jdk/bin/java" -cp "$jar:$classes"
runs 'module path' "$jdk/bin/java" --module-path "$jar" --add-modules it.quarvel.pkcs11 -cp "$classes"
"$jdk/bin/jlink" --module-path "$jar" --add-modules it.quarvel.pkcs11 --output "$work/image"
runs 'jlink image' "$work/image/bin/java" -cp "$classes"

# ---- Where the native library comes from ----

# fails ARGUMENTS...: the program does not start; has TEXT: its error says so
fails() {
  "$jdk/bin/java" -cp "$jar:$classes" -Djava.library.path=/nowhere "$@" TraceLog none none \
    >"$work/out" 2>&1 && { echo "started with $*"; exit 1; }
  return 0
}
has() { grep -q "$1" "$work/out" || { echo "no '$1' in:"; cat "$work/out"; exit 1; }; }

unzip -q -o "$jar" -d "$work/jar"
library=$(find "$work/jar" -name libquarvelpkcs11.so)
mkdir "$work/copies" "$work/file"
cp "$library" "$work/file/my library.so"
runs 'named file' "$jdk/bin/java" -cp "$jar:$classes" \
  -Dit.quarvel.pkcs11.library="$work/file/my library.so" -Dit.quarvel.pkcs11.tmpdir=/nowhere
runs 'copy from the jar' "$jdk/bin/java" -cp "$jar:$classes" -Djava.library.path=/nowhere \
  -Dit.quarvel.pkcs11.tmpdir="$work/copies"
rmdir "$work/copies" # the copy has gone
fails -Dit.quarvel.pkcs11.library=/nowhere/file.so
has 'UnsatisfiedLinkError.*-Dit.quarvel.pkcs11.library'
has '/nowhere/file.so'
fails -Dit.quarvel.pkcs11.tmpdir=/nowhere
has 'library quarvelpkcs11.*: '
has 'resource .*libquarvelpkcs11.so: '

if [ "$version" -ge 24 ]; then
  deny=--illegal-native-access=deny
  runs 'native access denied but to the class path' "$jdk/bin/java" $deny \
    --enable-native-access=ALL-UNNAMED -cp "$jar:$classes"
  runs 'native access denied but to the module' "$jdk/bin/java" $deny \
    --enable-native-access=it.quarvel.pkcs11 --module-path "$jar" --add-modules it.quarvel.pkcs11 \
    -cp "$classes"
  "$jdk/bin/java" $deny -jar "${jar%.jar}-cli.jar" info --module none 2>&1 | grep -q 'has to name a PKCS#11 module'
  echo 'native access denied but to the inspector: works'
  "$jdk/bin/java" $deny -cp "$jar:$classes" TraceLog none none 2>&1 |
    grep -q 'start it with --enable-native-access=ALL-UNNAMED'
  echo 'native access denied: the error names the flag'
fi
