#!/bin/bash
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

# java_of PAGE [PATTERN]: its blocks of Java, those that match
java_of() { awk -v RS='```' -v pattern="${2-}" 'sub(/^java\n/, "") && $0 ~ pattern' "$1"; }

# What docs/instead-of.md says as one program, and what has to come of it.
instead_of() {
  cat <<'END'
import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.security.*;
import java.util.*;
import javax.crypto.Cipher;
import javax.crypto.spec.*;

class InsteadOf {
  public static void main(String[] args) throws Exception {
    NativePKCS11Session session = PKCS11Module.open(args[0]).token("demo").openSession();
    session.login(false, args[1]);
    NativePKCS11Object key =
        session.findFirst(new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY)).orElseThrow();
END
  java_of instead-of.md
  cat <<'END'
    System.out.println(genuine && Arrays.equals(signature, signatureOfParts)
        && Arrays.equals(data, opened) && Arrays.equals(data, unsealed));
  }
}
END
}

use_installed() {
  . "$tests/token.sh"
  start_module softhsm2
  cd "$tests"
  local packages=(libquarvel-pkcs11-jni libquarvel-pkcs11-java libquarvel-pkcs11-java-doc quarvel-pkcs11)
  local jar=/usr/share/java/quarvel-pkcs11.jar cli=/usr/share/java/quarvel-pkcs11-cli.jar
  (umask 000 && dpkg --install ./*_{all,"$(dpkg --print-architecture)"}.deb >/dev/null)
  dpkg --verify "${packages[@]}"
  dpkg --listfiles "${packages[@]}" | grep . | sort -u |
    xargs -I{} find {} -maxdepth 0 ! -type l -perm /022 ! -path /tmp | diff /dev/null -
  lintian --allow-root --pedantic ./*.deb | diff /dev/null -

  local pkcs11_tool=(pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" --login --pin "$QUARVEL_PIN")
  "${pkcs11_tool[@]}" --keypairgen --key-type rsa:2048 --label signing >/dev/null 2>&1
  "${pkcs11_tool[@]}" --read-object --type pubkey --label signing 2>/dev/null |
    openssl pkey -pubin -inform DER -out "$TOKEN_DIR/public.pem"

  instead_of >InsteadOf.java
  java -cp $jar InsteadOf.java "$QUARVEL_PKCS11_MODULE" "$QUARVEL_PIN" | grep -x true

  java_of README.md 'public class' >Example.java
  mkdir -p maven/src/main/java
  local name
  name=$(sed -n 's/^public class \([A-Za-z]*\) .*/\1/p' Example.java)
  cp Example.java "maven/src/main/java/$name.java"
  signs -cp $jar "maven/src/main/java/$name.java"
  cat >maven/pom.xml <<END
<project xmlns="http://maven.apache.org/POM/4.0.0">
  <modelVersion>4.0.0</modelVersion>
  <groupId>example</groupId><artifactId>example</artifactId><version>1</version>
  <properties><maven.compiler.release>17</maven.compiler.release></properties>
  <dependencies><dependency>
    <groupId>it.quarvel</groupId><artifactId>quarvel-pkcs11</artifactId><version>1.16.0</version>
  </dependency></dependencies>
</project>
END
  cat >maven/settings.xml <<END
<settings><mirrors><mirror>
  <id>installed</id><mirrorOf>*</mirrorOf><url>file:///usr/share/maven-repo</url>
</mirror></mirrors></settings>
END
  MAVEN_OPTS=-XX:TieredStopAtLevel=1 mvn --quiet --batch-mode --file maven/pom.xml --settings maven/settings.xml \
    -Dmaven.repo.local="$PWD/maven/local" compile >maven/log 2>&1 || { cat maven/log; return 1; }
  signs -cp "maven/target/classes:$(echo maven/local/it/quarvel/quarvel-pkcs11/*/*.jar)" "$name"

  # The bundle exports what the module exports; the class loader knows the version.
  unzip -p $jar META-INF/MANIFEST.MF | tr -d '\r' | sed -z 's/\n //g' >manifest
  diff <(sed -n 's/^Export-Package: //p' manifest | tr ',' '\n' | sed 's/;.*//' | sort) \
    <(jar --describe-module --file $jar | sed -n 's/^exports //p' | sort)
  cat >Version.java <<'END'
class Version {
  public static void main(String[] args) {
    System.out.println(it.quarvel.pkcs11.PKCS11Info.class.getPackage().getImplementationVersion());
  }
}
END
  java -cp $jar Version.java | grep -x 1.16.0 >/dev/null

  quarvel-pkcs11 slots --module "$QUARVEL_PKCS11_MODULE" | grep demo >/dev/null
  bash -c '. /usr/share/bash-completion/completions/quarvel-pkcs11
    COMP_WORDS=(quarvel-pkcs11 me) COMP_CWORD=1
    "_complete_quarvel-pkcs11" 2>/dev/null && [ "${COMPREPLY[*]}" = mechanisms ]'
  # The manual knows every option.
  local options command
  options=$(for command in info slots mechanisms objects sign decrypt check; do
    quarvel-pkcs11 $command --help
  done | grep -oE -- '--[a-z-]+' | sort -u)
  zcat /usr/share/man/man1/quarvel-pkcs11.1.gz | sed 's/\\//g' >manual
  for command in $options; do
    grep -q -- "$command" manual || { echo "the manual lacks $command"; return 1; }
  done
  mv /usr/share/java/picocli.jar picocli.jar
  ! quarvel-pkcs11 slots 2>error || return 1
  diff error - <<<'quarvel-pkcs11: picocli.jar is not beside quarvel-pkcs11-cli.jar'
  mv picocli.jar /usr/share/java/picocli.jar
  java -jar $cli --version
}

# ---- In the other folder ----

build_elsewhere() {
  umask 000
  cd "$tests/.."
  cmake --preset package
  cmake --build build/package --target packages
  cmake --install build/package --prefix "$PWD/installed" >/dev/null
  find installed ! -type l -perm /022 | diff /dev/null -
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
for file in "$folder"/*.deb "$folder"/*.tar.gz "$folder/maven"; do
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
cp "$folder"/*.deb "$0" "$tests/token.sh" "$tests/../README.md" "$tests/../docs/instead-of.md" \
  $view/tmp/packages/
chroot $view /tmp/packages/packages.sh --installed
echo 'packages: installed; the examples of the README and docs run from them, and as a Maven project'
