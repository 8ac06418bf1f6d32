#!/bin/bash
# The jar of all variants on this machine's C library, older ones and musl, and on other versions of
# Java: reach.sh JAR DEMO CACHE. Each ends in the last line of the demo, or in what it lacks. What is
# fetched stays in CACHE.
set -euo pipefail
tests=$(dirname "$(readlink -f "$0")")
mkdir -p "$3"
jar=$(readlink -f "$1") demo=$(readlink -f "$2") cache=$(readlink -f "$3")
. "$tests/token.sh"
. "$tests/unpack.sh"
[ "$(uname -m)" = x86_64 ] || skip 'what is fetched is for x86-64'
start_module server # a SoftHSM2, and a client for programs that cannot load it themselves
fill_token
softhsm2=usr/lib/softhsm/libsofthsm2.so
client=usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so

# verified NAME OPTION MODULE COMMAND...: runs the demo, with the option; COMMAND runs Java
verified() {
  if "${@:4}" --enable-native-access=ALL-UNNAMED -cp "$jar:$demo" Demo --module "$3" \
    --pin "$QUARVEL_PIN" --label "$QUARVEL_TOKEN" --key demo-key ${2:+"$2"} >"$TOKEN_DIR/out" 2>&1; then
    echo "$1: $(tail -n 1 "$TOKEN_DIR/out" | grep '^Verified')"
  else
    echo "$1 fails:"
    cat "$TOKEN_DIR/out"
    exit 1
  fi
}
version() { sed -n 's/^JAVA_VERSION="\(.*\)"/Java \1/p' "$1/release"; }
newest() { readelf -V "$1" | sed -n 's/.* Name: GLIBC_\([0-9.]*\) .*/\1/p' | sort -V | tail -n 1; }

# with_libc JDK LOADER LIBRARIES OPTION MODULE [NAME=VALUE...]: the demo on another glibc. A copy of
# the JDK's launcher asks for the loader in the current folder, and else is where the JDK's would be.
with_libc() {
  local home=$TOKEN_DIR/jdk file
  rm -rf "$home"
  mkdir -p "$home/bin"
  for file in "$1"/*; do ln -s "$file" "$home/" 2>/dev/null || true; done
  LC_ALL=C sed 's#/lib64/ld-linux#.//////ld-linux#' "$1/bin/java" >"$home/bin/java"
  chmod +x "$home/bin/java"
  cd "$(dirname "$2")"
  verified "$("$2" "$3/libc.so.6" | sed -n 's/^GNU C Library .* version \([0-9]*\.[0-9]*\).*/glibc \1/p'), $(version "$1")" \
    "$4" "$5" env LC_ALL=C LD_LIBRARY_PATH="$3" "${@:6}" "$home/bin/java"
}

# ---- This machine, each Java once ----

for jdk in $(jdks ''); do
  verified "this machine, $(version "$jdk")" --write "/$softhsm2" "$jdk/bin/java"
done

# ---- An older and a newer Debian, each with its own Java and SoftHSM2 ----

# debian SUITE JRE
debian() {
  local root=$cache/$1
  unpack "$root" "$1" amd64 "$2" softhsm2 p11-kit-modules
  with_libc "$(jdks "$root")" "$root/lib64/ld-linux-x86-64.so.2" \
    "$root/usr/lib/x86_64-linux-gnu" --write "$root/$softhsm2"
}
debian bullseye openjdk-17-jre-headless
debian trixie openjdk-21-jre-headless

# ---- glibc 2.17, with a Java of this machine that it can run ----

older=$cache/bullseye/$client
sysroot=$cache/glibc-2.17
if [ ! -e "$sysroot/libc.so.6" ] && command -v npm >/dev/null; then
  mkdir -p "$sysroot"
  (cd "$sysroot" && npm pack --silent @napi-rs/cross-toolchain-x64-target-x86_64@1.0.0 >/dev/null)
  tar -xzOf "$sysroot"/*.tgz package/x86_64-unknown-linux-gnu.tar.xz |
    tar -xJ --directory "$sysroot" --strip-components=4 ./x86_64-unknown-linux-gnu/sysroot/lib
fi
old_jdk=
for jdk in $(jdks ''); do
  if [ "$(printf '2.17\n%s\n' "$(newest "$jdk/lib/server/libjvm.so")" | sort -V | tail -n 1)" = 2.17 ]; then
    old_jdk=$jdk
  fi
done
if [ ! -e "$sysroot/libc.so.6" ]; then
  echo 'glibc 2.17: not tried, it comes by npm, which is not here'
elif [ -z "$old_jdk" ]; then
  echo 'glibc 2.17: not tried, all Java under /usr/lib/jvm wants a newer one'
else
  # The one function that the client wants of a newer glibc comes from elsewhere; its version need
  # not be there.
  LC_ALL=C sed 's/\x86\x91\x96\x06\x00\x00/\x86\x91\x96\x06\x02\x00/' "$older" >"$TOKEN_DIR/client.so"
  cc -shared -fPIC -o "$TOKEN_DIR/older.so" "$tests/reach/olderLibc.c"
  cp --dereference "$cache"/bullseye/usr/lib/x86_64-linux-gnu/libffi.so.7 "$sysroot/"
  (with_libc "$old_jdk" "$sysroot/ld-linux-x86-64.so.2" "$sysroot" '' "$TOKEN_DIR/client.so" \
    LD_PRELOAD="$TOKEN_DIR/older.so")
fi

# ---- musl, without Java ----

unzip -q "$jar" 'it/quarvel/pkcs11/nat/linux-amd64/*' -d "$TOKEN_DIR"
natives=$TOKEN_DIR/it/quarvel/pkcs11/nat/linux-amd64
for file in "$natives"/*.so; do /lib/ld-musl-x86_64.so.1 --list "$file" >/dev/null; done
# shellcheck disable=SC2046  # several words
musl-gcc -rdynamic -o "$TOKEN_DIR/musl" "$tests"/reach/*.c "-I$JAVA_HOME/include" \
  "-I$JAVA_HOME/include/linux" $(pkg-config --cflags-only-I p11-kit-1)
cp --dereference "$cache"/bullseye/usr/lib/x86_64-linux-gnu/libffi.so.7 "$TOKEN_DIR/"
# The client names the loader of glibc too, but takes nothing from it that musl has not.
musl-gcc -shared -nostdlib -x c /dev/null -o "$TOKEN_DIR/ld-linux-x86-64.so.2"
LD_LIBRARY_PATH=$TOKEN_DIR QUARVEL_PKCS11_ADAPTED_MODULE=$older "$TOKEN_DIR/musl" \
  "$natives/libquarvelpkcs11.so" "$natives/libquarvelpkcs11adapter.so" "$QUARVEL_TOKEN" "$QUARVEL_PIN" \
  demo-key >"$TOKEN_DIR/signature"
echo "musl $(dpkg-query --show --showformat '${Version}' musl), no Java: $(printf data |
  openssl dgst -sha256 -verify "$TOKEN_DIR/pubkey.pem" -signature "$TOKEN_DIR/signature")"
