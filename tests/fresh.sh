#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# What `./dev fresh` runs for each suite: fresh.sh SUITE. A Debian with nothing but git and
# ca-certificates, made in build/fresh/SUITE by debootstrap with the mirrors and certificates of this
# machine; in it a clone of the last commit, then the README's commands as root and as a user with
# sudo. Leaves the suite's part of docs/fresh.md there.
set -euo pipefail
suite=$1
project=$(dirname "$(dirname "$(readlink -f "$0")")")
work=$project/build/fresh/$suite
root=$work/root

give_up() {
  echo "fresh: $1" >&2
  exit 1
}

if [ -z "${INSIDE-}" ]; then
  [ "$(id -u)" -eq 0 ] || give_up "only root can make a root file system"
  unshare --mount --pid --fork true 2>/dev/null || give_up "no namespace can be had here"
  git -C "$project" rev-parse HEAD >/dev/null 2>&1 || give_up "this folder is no clone, there is nothing to clone"
  INSIDE=1 exec unshare --mount --pid --fork --kill-child "$0" "$suite"
fi

# ---- The bare machine ----

mirror() { # LABEL
  # shellcheck disable=SC2016  # apt's own field
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' "Label: $1" | head -n 1
}
archive=$(mirror Debian) security=$(mirror Debian-Security)
[ -n "$archive" ] || give_up "apt here has no sources of Debian: run apt-get update"

rm -rf "$work"
mkdir -p "$work"
git -C "$project" bundle create --quiet "$work/quarvel.bundle" HEAD
debootstrap --variant=minbase --include=git,ca-certificates "$suite" "$work/bare" "$archive" \
  >"$work/debootstrap.log" 2>&1 || give_up "debootstrap failed, see $work/debootstrap.log"
{
  echo "deb $archive $suite main"
  [ "$suite" = sid ] || echo "deb $archive $suite-updates main"
  [ "$suite" = sid ] || [ -z "$security" ] || echo "deb $security $suite-security main"
} >"$work/bare/etc/apt/sources.list"
{
  apt-config dump Acquire | grep -i proxy || true
  echo 'Acquire::Check-Valid-Until "false";' # a mirror may lag
} >"$work/bare/etc/apt/apt.conf.d/90machine"
cp /etc/resolv.conf /etc/hosts "$work/bare/etc/"
cp -r /usr/local/share/ca-certificates "$work/bare/usr/local/share/"
chroot "$work/bare" update-ca-certificates >/dev/null 2>&1
chroot "$work/bare" apt-get clean

begin() {
  cp -a "$work/bare" "$root"
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
  cp "$work/quarvel.bundle" "$root/tmp/"
  chmod 644 "$root/tmp/quarvel.bundle"
}
end() {
  umount --lazy "$root/proc" "$root/dev"
  rm -rf --one-file-system "$root"
}

# As on a machine of its own, where namespaces can be had: no chroot.
inside() { # USER COMMAND...
  # shellcheck disable=SC2016  # for the shell inside
  unshare --mount sh -euc 'mount --rbind "$1" "$1"; cd "$1"; pivot_root . mnt; umount --lazy /mnt
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb runuser --login "$2" --command "$3"' \
    sh "$root" "$1" "${*:2}"
}
packages() { chroot "$root" dpkg-query --show | wc -l; }
megabytes() { du --summarize --one-file-system --block-size=1M --exclude=quarvel "$root" | cut -f 1; }

# row USER COMMAND: runs it in the clone, and tells what it took
row() {
  local packages_before megabytes_before began=$SECONDS log=$work/$1-${2//[^a-z]/}.log result=passes
  packages_before=$(packages) megabytes_before=$(megabytes)
  inside "$1" "cd quarvel && $2" >"$log" 2>&1 || result="**fails**"
  # shellcheck disable=SC2016  # Markdown
  printf '| %s | `%s` | %s | %d min %02d s | %d | %s | %d MB |\n' "$1" "$2" "$result" \
    $(((SECONDS - began) / 60)) $(((SECONDS - began) % 60)) $(($(packages) - packages_before)) \
    "$(sed -n 's/^Need to get \(.*B\) of archives.*/\1/p' "$log")" $(($(megabytes) - megabytes_before)) |
    tee -a "$work/table"
  [ "$result" = passes ] || give_up "see $log"
}

sums() ( # CLONE: of what it has packaged
  cd "$1/build/package"
  find . -type f \( -name '*.deb' -o -name '*.tar.gz' -o -path './maven/*' \) -exec sha256sum {} + | sort -k 2
)

# ---- As root ----

begin
bare="$(packages) packages, $(megabytes) MB"
inside root git clone --quiet -c advice.detachedHead=false -c init.defaultBranch=main /tmp/quarvel.bundle quarvel
row root './dev demo'
row root './dev test'
row root './dev package'
sums "$root/root/quarvel" >"$work/sums"
grep -q "deb$" "$work/sums"
. /etc/os-release
if [ "$suite" = "$VERSION_CODENAME" ]; then
  git clone --quiet -c advice.detachedHead=false -c init.defaultBranch=main "$work/quarvel.bundle" "$work/here"
  "$work/here/dev" package >"$work/here.log" 2>&1
  sums "$work/here" | diff "$work/sums" -
  echo "fresh: the packages have the bytes that this machine makes"
fi
end

# ---- As a user, without sudo and with it ----

begin
chroot "$root" useradd --create-home --shell /bin/bash user
inside user git clone --quiet -c advice.detachedHead=false -c init.defaultBranch=main /tmp/quarvel.bundle quarvel
if inside user 'quarvel/dev demo' >"$work/refusal" 2>&1 || [ "$(wc -l <"$work/refusal")" -ne 1 ]; then
  give_up "without sudo: $(cat "$work/refusal")"
fi
chroot "$root" sh -c 'apt-get update -qq && apt-get install -y -qq --no-install-recommends sudo' >/dev/null 2>&1
echo 'user ALL=(ALL) NOPASSWD: ALL' >"$root/etc/sudoers.d/user"
row user './dev demo'
row user './dev test'
row user './dev package'
sums "$root/home/user/quarvel" | diff "$work/sums" -
# shellcheck disable=SC2016  # dpkg-query's own fields
versions=$(chroot "$root" dpkg-query --show -f '${db:Status-Abbrev}${Package} ${Version}\n' g++ openssl \
  opensc p11-kit 'openjdk-*-jdk-headless' |
  sed -nE 's/-jdk-headless//; s/^ii *(\S+) ([0-9]+:)?([^-+~]*).*/\1 \3, /p' | tr -d '\n')
end

{
  echo "Made on $(date --utc +%Y-%m-%d) with Debian $(cat "$work/bare/etc/debian_version"), ${versions%, }:" \
    "$bare before the first command." | fmt --width 100
  printf '\n| as | command | result | time | packages | download | on disk |\n|---|---|---|---|---|---|---|\n'
  cat "$work/table"
} >"$work/$suite.md"
rm -rf "$work"/{bare,here}
