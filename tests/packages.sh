#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds the packages a second time in other circumstances and compares; installs them into a
# copy-on-write view of this machine, without a network, and uses them: packages.sh FOLDER.
# Exit status 77: no such view can be had.
set -euo pipefail
tests=$(dirname "$(readlink -f "$0")")

# ---- In the view ----

signs() { # JAVA ARGUMENTS...: as the README's program does; OpenSSL judges
  printf %s "$QUARVEL_PIN" | java "$@" | tail -n 1 | perl -ne 'chomp; print pack "H*", $_' >"$TOKEN_DIR/signature"
  printf data | openssl dgst -sha256 -verify "$TOKEN_DIR/public.pem" -signature "$TOKEN_DIR/signature"
}

# blocks LANGUAGE PAGE: its blocks of that language
blocks() { awk -v RS='```' -v language="^$1\n" 'sub(language, "")' "$2"; }

use_installed() {
  . "$tests/token.sh"
  start_module softhsm2
  cd "$tests"
  local packages=(libquarvel-pkcs11-jni libquarvel-pkcs11-java libquarvel-pkcs11-java-doc quarvel-pkcs11)
  local jar=/usr/share/java/quarvel-pkcs11.jar cli=/usr/share/java/quarvel-pkcs11-cli.jar
  (umask 000 && apt-get install -qq -o Dpkg::Use-Pty=0 "./deb/$(dpkg --print-architecture)"/*.deb >/dev/null)
  dpkg --verify "${packages[@]}"
  dpkg --listfiles "${packages[@]}" | grep . | sort -u |
    xargs -I{} find {} -maxdepth 0 ! -type l -perm /022 ! -path /tmp | diff /dev/null -
  lintian --allow-root ./deb/*/*.{deb,dsc} | diff /dev/null -

  local pkcs11_tool=(pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" --login --pin "$QUARVEL_PIN")
  "${pkcs11_tool[@]}" --keypairgen --key-type rsa:2048 --label signing >/dev/null 2>&1
  "${pkcs11_tool[@]}" --read-object --type pubkey --label signing 2>/dev/null |
    openssl pkey -pubin -inform DER -out "$TOKEN_DIR/public.pem"

  # What docs/instead-of.md says as one program, and what has to come of it.
  {
    blocks java instead-of.md | grep ^import
    cat <<'END'
class InsteadOf {
  public static void main(String[] args) throws Exception {
    NativePKCS11Session session = PKCS11Module.open(args[0]).token("demo").openSession();
    session.login(false, args[1]);
    NativePKCS11Object key =
        session.findFirst(new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY)).orElseThrow();
END
    blocks java instead-of.md | grep -v ^import
    cat <<'END'
    System.out.println(genuine && Arrays.equals(signature, signatureOfParts)
        && Arrays.equals(data, opened) && Arrays.equals(data, unsealed)
        && PKCS11Info.class.getPackage().getImplementationVersion().equals(PKCS11Module.version()));
  }
}
END
  } >InsteadOf.java
  java -cp $jar InsteadOf.java "$QUARVEL_PKCS11_MODULE" "$QUARVEL_PIN" | grep -x true

  # The program of README.md, by itself and in a project of Maven as docs/install.md describes it.
  mkdir -p src/main/java
  blocks java README.md | sed -n '/^import static/,$p' >src/main/java/Sign.java
  signs -cp $jar src/main/java/Sign.java
  blocks java README.md | sed '/^import static/,$d' >SignWithProvider.java
  signs -cp $jar SignWithProvider.java
  local dependency
  dependency=$(blocks xml install.md | grep -v '<repository>')
  # The goal by its version: that of the life cycle need not be the one that Debian has.
  local compiler
  compiler=$(printf '%s\n' /usr/share/maven-repo/org/apache/maven/plugins/maven-compiler-plugin/* | sort -V | tail -n 1)
  compiler=org.apache.maven.plugins:maven-compiler-plugin:${compiler##*/}:compile
  # From the package, then from the folder of packages, by the page's range and as the latest.
  for version in "$(dpkg-query --show --showformat '${Version}' quarvel-pkcs11)" '[1.16,1.17)' LATEST; do
    cat >pom.xml <<END
<project xmlns="http://maven.apache.org/POM/4.0.0">
  <modelVersion>4.0.0</modelVersion>
  <groupId>example</groupId><artifactId>example</artifactId><version>1</version>
  <properties><maven.compiler.release>17</maven.compiler.release></properties>
  <repositories>$(blocks xml install.md | grep '<repository>' | sed "s#/path/to#$tests#")</repositories>
  <dependencies>${dependency/'[1.16,1.17)'/$version}</dependencies>
</project>
END
    mvn --quiet --batch-mode --offline --strict-checksums -Daether.offline.protocols=file \
      -Dmaven.repo.local=/usr/share/maven-repo "$compiler" >log 2>&1 || { cat log; return 1; }
    signs -cp "target/classes:$(echo /usr/share/maven-repo/it/quarvel/quarvel-pkcs11/*/*.jar)" Sign
    rm -r /usr/share/maven-repo/it target
  done

  # The bundle exports what the module exports.
  unzip -p $jar META-INF/MANIFEST.MF | tr -d '\r' | sed -z 's/\n //g' >manifest
  diff <(sed -n 's/^Export-Package: //p' manifest | tr ',' '\n' | sed 's/;.*//' | sort) \
    <(jar --describe-module --file $jar | sed -n 's/^exports //p' | sort)

  quarvel-pkcs11 slots --module "$QUARVEL_PKCS11_MODULE" | grep demo >/dev/null
  mkdir -p stub/bin
  ln -s /bin/echo stub/bin/java
  JAVA_HOME=$PWD/stub quarvel-pkcs11 slots | grep -e ' -XX:TieredStopAtLevel=1 ' >/dev/null
  JDK_JAVA_OPTIONS=-XX:+UseParallelGC quarvel-pkcs11 --version 2>/dev/null # Java takes one collector
  bash -c '. /usr/share/bash-completion/completions/quarvel-pkcs11
    COMP_WORDS=(quarvel-pkcs11 me) COMP_CWORD=1
    "_complete_quarvel-pkcs11" 2>/dev/null
    [[ " ${COMPREPLY[*]} " = *" mechanisms "* && " ${COMPREPLY[*]}" != *" "[!m]* ]]'
  mv /usr/share/java/picocli.jar picocli.jar
  ! quarvel-pkcs11 slots 2>error || return 1
  diff error - <<<'quarvel-pkcs11: picocli.jar is not beside quarvel-pkcs11-cli.jar'
  mv picocli.jar /usr/share/java/picocli.jar
  java -jar $cli --version | grep -x "$(dpkg-query --show --showformat '${Version}' quarvel-pkcs11)"
}

# ---- In the other folder ----

build_elsewhere() {
  umask 000
  cd "$tests/.."
  cmake --preset package
  cmake --build build/package --target packages
  for mask in 000 077; do
    (umask $mask && cmake --install build/package --prefix "$PWD/installed$mask" >/dev/null)
  done
  find installed* ! -type l \( -perm /022 -o ! -perm -044 \) | diff /dev/null -
}

case $1 in
  --elsewhere) build_elsewhere; exit ;;
  --installed) use_installed; exit ;;
esac

# ---- On the machine ----

folder=$(readlink -f "$1")
if [ -z "${INSIDE-}" ]; then
  unshare --mount --net true 2>/dev/null ||
    { echo "packages: skipped, no mount namespace for this user"; exit 77; }
  INSIDE=1 exec unshare --mount --net "$0" "$folder"
fi
# Inside the namespace /mnt is nobody else's.
mount -t tmpfs none /mnt

# Another user, folder, file system, umask, language and time zone: the same bytes, and nobody else
# can write what is installed from there.
other='/mnt/a folder/quarvel'
mkdir -p "$other"
tar --create --directory "$tests/.." --exclude=./build --exclude=./.git . |
  tar --extract --directory "$other"
chown -R nobody '/mnt/a folder'
setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME=/mnt TZ=Asia/Tokyo LC_ALL=C \
  JAVA_TOOL_OPTIONS='-Duser.language=tr -Duser.timezone=Asia/Tokyo' \
  "$other/tests/packages.sh" --elsewhere 2>&1
for file in "$folder"/{deb,maven,*.tar.gz}; do
  diff --recursive "$file" "$other/build/package/$(basename "$file")"
done
echo 'packages: the same bytes from another user, folder, umask, language and time zone'

jar=$(echo "$folder"/maven/it/quarvel/quarvel-pkcs11/*/quarvel-pkcs11-[0-9.]*[0-9].jar)
"$tests/exports.sh" "$jar" javap
diff <(unzip -Z1 "$jar" '*.so' | sed 's#/[^/]*$##; s#.*/##' | uniq -c | xargs) - <<<'2 linux-amd64 2 linux-aarch64'

view=/mnt/view
mkdir /mnt/upper /mnt/work $view
mount -t overlay overlay -o lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work $view ||
  { echo "packages: not installed, no overlay file system"; exit 77; }
mount --bind /proc $view/proc
mount --bind /dev $view/dev
mkdir $view/tmp/packages
cp -r "$folder"/{deb,maven} "$0" "$tests/token.sh" "$tests/../README.md" "$tests/../docs/"{install,instead-of}.md \
  $view/tmp/packages/
chroot $view /tmp/packages/packages.sh --installed
echo 'packages: installed; the examples of the README and of docs/ run from them, and as a Maven project'
