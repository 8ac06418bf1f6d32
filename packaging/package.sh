#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Makes a Maven repository and the tarball of a finished build, and the Debian packages of its sources:
# package.sh BUILD VERSION DATE [VARIANT...]. The variants are the other architectures for which the
# jar carries native files. The same sources give the same bytes: owners, modes, times and the order
# of files are fixed.
set -euo pipefail
build=$1 version=$2 variants=("${@:4}")
tree=$(dirname "$(dirname "$(readlink -f "$0")")")
SOURCE_DATE_EPOCH=$(date --date "$3Z" +%s)
export SOURCE_DATE_EPOCH LC_ALL=C.UTF-8
if [ "$SOURCE_DATE_EPOCH" -gt "$(date +%s)" ]; then
  echo "CHANGELOG.md dates the release $3, which has not begun in UTC" >&2
  exit 1
fi
umask 022
name=quarvel-pkcs11-$version
work=$build/packaging
rm -rf "$work" "$build"/{deb,maven} "$build"/*.tar.gz
mkdir -p "$work"

# ---- Maven and Gradle: a repository that a build can name ----

repository=$build/maven/it/quarvel/quarvel-pkcs11
install -D -m 644 -t "$repository" "$build/maven-metadata.xml"
install -D -m 644 "$build/resources/META-INF/maven/it.quarvel/quarvel-pkcs11/pom.xml" \
  "$repository/$version/$name.pom"
for kind in '' -sources -javadoc; do
  install -m 644 "$build/quarvel-pkcs11$kind.jar" "$repository/$version/$name$kind.jar"
done
sha256=$(sha256sum <"$build/quarvel-pkcs11.jar")
sed "s/SHA256/${sha256%% *}/" "$build/sbom.cdx.json" >"$repository/$version/$name-cyclonedx.json"
for file in "$repository"/{*.xml,*/*}; do
  for sum in md5 sha1 sha256 sha512; do
    "${sum}sum" <"$file" | cut -d ' ' -f 1 >"$file.$sum"
  done
done

# ---- The tarball ----

cmake --install "$build" --prefix "$work/$name" --strip >/dev/null
strip --remove-section=.comment "$work/$name"/lib/jni/*.so
tar --create --directory "$work" --sort=name --owner=root:0 --group=root:0 --numeric-owner \
  --mtime="@$SOURCE_DATE_EPOCH" --format=gnu --transform="s/^$name/&-linux-$(uname -m)/" "$name" |
  gzip -9n >"$build/$name-linux-$(uname -m).tar.gz"

# ---- The Debian packages, of each architecture in a folder, and their source ----

rm -r "${work:?}/$name"
mkdir "$work/$name"
tar --create --directory "$tree" --mode=go+rX,go-w --mtime="@$SOURCE_DATE_EPOCH" --exclude=./build \
  --exclude=./.git . |
  tar --extract --directory "$work/$name"
cd "$work/$name"
packaging/changelog.sh >debian/changelog
export DEB_BUILD_PROFILES=pkg.quarvel-pkcs11.release DEB_BUILD_OPTIONS="noautodbgsym terse"

# build_packages ARCHITECTURE KIND: builds packages and copies them into deb/ARCHITECTURE; KIND as
# dpkg-buildpackage --build takes it
build_packages() {
  dpkg-buildpackage --no-sign --no-check-builddeps "--host-arch=$1" "--build=$2" >"$work/$1.log" 2>&1 ||
    { cat "$work/$1.log"; return 1; }
  mkdir -p "$build/deb/$1"
  cp ../*_"$1".deb ../*_all.deb "$build/deb/$1/"
}
build_packages "$(dpkg --print-architecture)" full
mkdir "$build/deb/source"
cp ../*.{dsc,tar.xz} "$build/deb/source/"
for variant in "${variants[@]}"; do
  build_packages "$(dpkg-architecture "-t${variant#linux-}-linux-gnu" -qDEB_HOST_ARCH)" any
done
cd "$build"
rm -r "$work"
