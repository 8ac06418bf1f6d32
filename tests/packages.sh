#!/bin/bash
# Installs the packages into a copy-on-write view of this machine and runs the README's example and
# the inspector from there: packages.sh FOLDER. Exit status 77: no such view can be had.
set -euo pipefail
folder=$(readlink -f "$1") readme=$(readlink -f "$(dirname "$0")/../README.md")
with_token=$(readlink -f "$(dirname "$0")/withToken.sh")

if [ -z "${INSIDE-}" ]; then
  unshare -m true 2>/dev/null || { echo "skipped: no mount namespace for this user"; exit 77; }
  INSIDE=1 exec unshare -m "$0" "$folder"
fi

# Inside the namespace /mnt is nobody else's.
root=/mnt
mount -t tmpfs none "$root"
mkdir "$root/upper" "$root/work" "$root/view"
mount -t overlay overlay -o "lowerdir=/,upperdir=$root/upper,workdir=$root/work" "$root/view" ||
  { echo "skipped: no overlay file system"; exit 77; }
mount --bind /proc "$root/view/proc"
mount --bind /dev "$root/view/dev"
mkdir -p "$root/view/tmp/packages"
cp "$folder"/*.deb "$with_token" "$root/view/tmp/packages/"
awk '/^```java/ {inside = 1; next} /^```/ {inside = 0} inside' "$readme" \
  >"$root/view/tmp/packages/Example.java"

# shellcheck disable=SC2016  # for the shell inside
chroot "$root/view" /bin/bash -euc '
  cd /tmp/packages
  dpkg --install ./*.deb >/dev/null
  dpkg --verify libquarvel-pkcs11-jni libquarvel-pkcs11-java
  name=$(sed -n "s/.*class \([A-Za-z]*\) .*/\1/p" Example.java | head -n 1)
  mv Example.java "$name.java"
  cat >example.sh <<END
    pkcs11-tool --module \$QUARVEL_MODULE --login --pin \$QUARVEL_PIN --keypairgen \
      --key-type rsa:2048 --label signing >/dev/null 2>&1
    printf %s \$QUARVEL_PIN | java -cp /usr/share/java/quarvel-pkcs11.jar $name.java
    quarvel-pkcs11 slots --module \$QUARVEL_MODULE
END
  ./withToken.sh bash -eu example.sh
'
