#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian packages, the tarball and a Maven repository of a finished build:
# package.sh BUILD VERSION DATE POM [VARIANT...], these being what the jar carries for other
# architectures. The same sources give the same bytes: owners, modes, times and the order of files
# are fixed.
set -euo pipefail
build=$1 version=$2 pom=$4 variants=("${@:5}")
source=$(dirname "$(readlink -f "$0")")
SOURCE_DATE_EPOCH=$(date --date "$3Z" +%s)
export SOURCE_DATE_EPOCH LC_ALL=C.UTF-8
umask 022

for tool in dpkg-shlibdeps dpkg-gencontrol dpkg-deb; do
  command -v $tool >/dev/null || { echo "$tool is missing" >&2; exit 1; }
done

work=$build/packaging
rm -rf "$work" "$build"/*.deb "$build"/*.tar.gz "$build/maven"
mkdir -p "$work"
DESTDIR=$work/all cmake --install "$build" --prefix /usr --strip >/dev/null
strip --remove-section=.comment "$work"/all/usr/lib/*/jni/*.so

# ---- Maven and Gradle: a repository that a build can name ----

repository=it/quarvel/quarvel-pkcs11
artifact=$repository/$version/quarvel-pkcs11-$version
install -D -m 644 -t "$build/maven/$repository" "$build/maven-metadata.xml"
install -D -m 644 "$pom" "$build/maven/$artifact.pom"
install -m 644 "$build/quarvel-pkcs11.jar" "$build/maven/$artifact.jar"
for kind in sources javadoc; do
  install -m 644 "$build/quarvel-pkcs11-$kind.jar" "$build/maven/$artifact-$kind.jar"
done
for file in "$build/maven/$repository"/{*.xml,*/*}; do
  for sum in md5 sha1 sha256 sha512; do
    "${sum}sum" <"$file" | cut -d ' ' -f 1 >"$file.$sum"
  done
done

# ---- The tarball ----

name=quarvel-pkcs11-$version-linux-$(uname -m)
cp -a "$work/all/usr" "$work/$name"
# Not Debian's folder of an architecture.
mv "$work/$name"/lib/*/jni "$work/$name/lib/"
rmdir "$work/$name"/lib/*-*
tar --create --directory "$work" --sort=name --owner=root:0 --group=root:0 --numeric-owner \
  --mtime="@$SOURCE_DATE_EPOCH" --format=gnu "$name" | gzip -9n >"$build/$name.tar.gz"

# ---- The Debian packages ----

mkdir "$work/debian"
install -m 644 "$source"/debian/* "$work/debian/"
cat >"$work/debian/changelog" <<END
quarvel-pkcs11 ($version) unstable; urgency=medium

  * Release $version, see CHANGELOG.md.

 -- the quarvel-pkcs11 authors <quarvel-pkcs11@localhost>  $(date --utc --date "$3" -R)
END
cd "$work"
usr() { echo "$work/$1/usr/$2"; }

# take PACKAGE PATH...: files of the installed tree
take() {
  local package=$1 path
  for path in "${@:2}"; do
    mkdir -p "$(usr "$package" "$(dirname "$path")")"
    cp -a "all/usr/$path" "$(usr "$package" "$path")"
  done
}

# jar PACKAGE FILE NAME: into the folder of all jars, its version in its name
jar() {
  install -D -m 644 "$2" "$(usr "$1" share/java)/$3-$version.jar"
  ln -s "$3-$version.jar" "$(usr "$1" share/java)/$3.jar"
}

take libquarvel-pkcs11-jni "lib/$(basename all/usr/lib/*)/jni"

jar libquarvel-pkcs11-java "$build/quarvel-pkcs11-pure.jar" quarvel-pkcs11
install -D -m 644 "$pom" "$(usr libquarvel-pkcs11-java "share/maven-repo/$artifact.pom")"
ln -s "../../../../../java/quarvel-pkcs11-$version.jar" \
  "$(usr libquarvel-pkcs11-java "share/maven-repo/$artifact.jar")"

take libquarvel-pkcs11-java-doc share/doc/quarvel-pkcs11
mv "$(usr libquarvel-pkcs11-java-doc share/doc/quarvel-pkcs11)" \
  "$(usr libquarvel-pkcs11-java-doc share/doc/libquarvel-pkcs11-java)"
rm "$(usr libquarvel-pkcs11-java-doc share/doc/libquarvel-pkcs11-java)"/{LICENSE,NOTICE}
install -D -m 644 debian/doc-base "$(usr libquarvel-pkcs11-java-doc share/doc-base)/libquarvel-pkcs11-java"

take quarvel-pkcs11 bin share/man share/bash-completion
gzip -9n "$(usr quarvel-pkcs11 share/man/man1)"/*
jar quarvel-pkcs11 "$build/quarvel-pkcs11-cli.jar" quarvel-pkcs11-cli

# package NAME: of what its folder holds, and of its substvars
package() {
  local package=$1 doc overrides
  doc=$(usr "$package" "share/doc/$package")
  overrides=$(usr "$package" share/lintian/overrides)
  install -D -m 644 debian/copyright "$doc/copyright"
  gzip -9n <debian/changelog >"$doc/changelog.gz"
  install -D -m 644 debian/lintian-overrides "$overrides/$package"
  mkdir -p "$package/DEBIAN"
  (cd "$package" && find usr -type f -print0 | sort -z | xargs -0 md5sum >DEBIAN/md5sums)
  dpkg-gencontrol "-p$package" "-P$package" "-T$package.substvars"
  find "$package" -exec touch --no-dereference --date "@$SOURCE_DATE_EPOCH" {} +
  dpkg-deb --root-owner-group --build "$package" "$build" >/dev/null
}

mkdir libquarvel-pkcs11-jni/DEBIAN
# Without its advice on libraries that newer C libraries do not need.
dpkg-shlibdeps --warnings=1 -Tlibquarvel-pkcs11-jni.substvars "$(usr libquarvel-pkcs11-jni lib)"/*/jni/*.so
sed -n 's/^Package: //p' debian/control | while read -r name; do package "$name"; done

# The native package for the others. The C library of these is not here to be asked.
echo 'shlibs:Depends=libc6 (>= 2.17)' >libquarvel-pkcs11-jni.substvars
for variant in "${variants[@]}"; do
  rm -r libquarvel-pkcs11-jni
  jni=$(usr libquarvel-pkcs11-jni "lib/${variant#linux-}-linux-gnu")/jni
  mkdir -p "$jni"
  install -m 644 "$build/$variant/resources/it/quarvel/pkcs11/nat/$variant"/*.so "$jni/"
  DEB_HOST_ARCH=$(dpkg-architecture "-t${variant#linux-}-linux-gnu" -qDEB_HOST_ARCH) \
    package libquarvel-pkcs11-jni
done
