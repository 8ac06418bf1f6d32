#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The jar of all variants on this machine's C library, older ones and musl, and on other versions of
# Java: reach.sh JAR DEMO CACHE. Each ends in the last line of the demo, or in what it lacks. What is
# fetched stays in CACHE.
. "$(dirname "$(readlink -f "$0")")/elsewhere.sh"
[ "$(uname -m)" = x86_64 ] || skip 'what is fetched is for x86-64'
start_module server # a SoftHSM2, and a client for programs that cannot load it themselves
fill_token
softhsm2=usr/lib/softhsm/libsofthsm2.so

version() { sed -n 's/^JAVA_VERSION="\(.*\)"/Java \1/p' "$1/release"; }

# with_libc JDK LOADER LIBRARIES MODULE [NAME=VALUE...]: the demo on another glibc. A copy of the JDK's
# launcher asks for the loader in the current folder, and else is where the JDK's would be.
with_libc() {
  local home=$TOKEN_DIR/jdk
  rm -rf "$home"
  mkdir -p "$home/bin"
  ln -s "$1"/[!b]* "$home/"
  LC_ALL=C sed 's#/lib64/ld-linux#.//////ld-linux#' "$1/bin/java" >"$home/bin/java"
  chmod +x "$home/bin/java"
  cd "$(dirname "$2")"
  demo "$("$2" "$3/libc.so.6" | sed -n 's/^GNU C Library .* version \([0-9]*\.[0-9]*\).*/glibc \1/p'), $(version "$1")" \
    "$4" env LC_ALL=C LD_LIBRARY_PATH="$3" "${@:5}" "$home/bin/java"
}

# ---- This machine, each Java once ----

for jdk in $(jdks ''); do
  demo "this machine, $(version "$jdk")" "/$softhsm2" "$jdk/bin/java"
done

# ---- An older and a newer Debian, each with its own Java and SoftHSM2 ----

# debian SUITE JRE
debian() {
  local root=$cache/$1
  unpack "$root" "$1" amd64 "$2" softhsm2 p11-kit-modules
  with_libc "$(jdks "$root")" "$root/lib64/ld-linux-x86-64.so.2" \
    "$root/usr/lib/x86_64-linux-gnu" "$root/$softhsm2"
}
debian bullseye openjdk-17-jre-headless
debian trixie openjdk-21-jre-headless

# ---- glibc 2.17, with a Java of this machine that it can run ----

libraries=$cache/bullseye/usr/lib/x86_64-linux-gnu
older=$libraries/pkcs11/p11-kit-client.so
sysroot=$cache/glibc-2.17
if [ ! -e "$sysroot/libc.so.6" ] && command -v npm >/dev/null; then
  mkdir -p "$sysroot"
  (cd "$sysroot" && npm pack --silent @napi-rs/cross-toolchain-x64-target-x86_64@1.0.0 >/dev/null)
  tar -xzOf "$sysroot"/*.tgz package/x86_64-unknown-linux-gnu.tar.xz |
    tar -xJ --directory "$sysroot" --strip-components=4 ./x86_64-unknown-linux-gnu/sysroot/lib
fi
old_jdk=
for jdk in $(jdks ''); do
  readelf -V "$jdk/lib/server/libjvm.so" | grep -E 'GLIBC_2\.(1[89]|[2-9][0-9])' >/dev/null || old_jdk=$jdk
done
if [ ! -e "$sysroot/libc.so.6" ]; then
  echo 'glibc 2.17: not tried, it comes by npm, which is not here'
elif [ -z "$old_jdk" ]; then
  echo 'glibc 2.17: not tried, all Java under /usr/lib/jvm wants a newer one'
else
  # The client wants one function of a newer glibc: olderLibc.c has it, and the client no longer
  # asks for its version.
  LC_ALL=C sed 's/\x86\x91\x96\x06\x00\x00/\x86\x91\x96\x06\x02\x00/' "$older" >"$TOKEN_DIR/client.so"
  cc -shared -fPIC -o "$TOKEN_DIR/older.so" "$tests/reach/olderLibc.c"
  cp --dereference "$libraries/libffi.so.7" "$sysroot/"
  (with_libc "$old_jdk" "$sysroot/ld-linux-x86-64.so.2" "$sysroot" "$TOKEN_DIR/client.so" \
    LD_PRELOAD="$TOKEN_DIR/older.so")
fi

# ---- musl, without Java ----

unzip -q "$jar" 'it/quarvel/pkcs11/nat/linux-amd64/*' -d "$TOKEN_DIR"
natives=$TOKEN_DIR/it/quarvel/pkcs11/nat/linux-amd64
for file in "$natives"/*.so; do /lib/ld-musl-x86_64.so.1 --list "$file" >/dev/null; done
# The client also names checked functions of glibc, which nobody calls.
mapfile -t unneeded < <(nm --dynamic --undefined-only "$older" |
  sed -nE '/memcpy/d; s/.* U (__[a-z]+_chk)@.*/-Wl,--defsym=\1=uncalled/p')
# shellcheck disable=SC2046  # several words
musl-gcc -rdynamic -o "$TOKEN_DIR/musl" "$tests/reach/musl.c" "${unneeded[@]}" "-I$JAVA_HOME/include" \
  "-I$JAVA_HOME/include/linux" $(pkg-config --cflags-only-I p11-kit-1)
cp --dereference "$libraries/libffi.so.7" "$TOKEN_DIR/"
# The client names the loader of glibc too, but takes nothing from it that musl has not.
musl-gcc -shared -nostdlib -x c /dev/null -o "$TOKEN_DIR/ld-linux-x86-64.so.2"
LD_LIBRARY_PATH=$TOKEN_DIR QUARVEL_PKCS11_ADAPTED_MODULE=$older "$TOKEN_DIR/musl" \
  "$natives/libquarvelpkcs11.so" "$natives/libquarvelpkcs11adapter.so" "$QUARVEL_PIN" >"$TOKEN_DIR/signature"
passes "musl $(dpkg-query --show --showformat '${Version}' musl), no Java" openssl dgst -sha256 \
  -verify "$TOKEN_DIR/pubkey.pem" -signature "$TOKEN_DIR/signature" < <(printf data)
