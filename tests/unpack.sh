#!/bin/bash
# Sourced: `unpack FOLDER SUITE ARCHITECTURE PACKAGE...` makes a folder of Debian packages and all that
# they depend on, in the suite and for the architecture named, as a root file system would have them.
# Root is not needed: apt keeps a state of its own beside the folder, and nothing of the machine's
# packages changes. The mirror is that of the machine's apt. A folder that holds these packages stays.
# `jdks FOLDER` lists the Java virtual machines there, each once whatever its links are called.
unpack() {
  local folder=$1 suite=$2 architecture=$3 state=$1.apt mirror
  shift 3
  [ "$*" != "$(cat "$folder.packages" 2>/dev/null)" ] || return 0
  rm -rf "$folder" "$folder.packages"
  mkdir -p "$folder"/usr/{bin,lib,lib64} "$state/lists/partial" "$state/archives/partial"
  ln -s usr/bin usr/lib usr/lib64 "$folder/" # as every Debian is by now
  # shellcheck disable=SC2016  # apt's own fields
  mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(COMPONENT)' \
    'Created-By: Packages' 'Origin: Debian' | awk '$2 !~ /-/ && $3 == "main" {print $1; exit}')
  [ -n "$mirror" ] || { echo "apt here has no sources of Debian: run apt-get update" >&2; return 1; }
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
    >"$state/sources.list"
  : >"$state/status"
  local get=(apt-get -qq -o "Dir::State=$state" -o "Dir::State::status=$state/status"
    -o "Dir::Cache=$state" -o "Dir::Etc::SourceList=$state/sources.list" -o Dir::Etc::SourceParts=/dev/null
    -o Dir::Etc::Preferences=/dev/null
    -o Dir::Etc::PreferencesParts=/dev/null -o "APT::Architecture=$architecture"
    -o "APT::Architectures=$architecture" -o APT::Sandbox::User=root)
  "${get[@]}" update
  "${get[@]}" install --yes --no-install-recommends --download-only "$@" >/dev/null
  local file link
  for file in "$state"/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$file" |
      tar --extract --no-same-owner --keep-directory-symlink --directory "$folder"
  done
  find "$folder" -lname '/*' | while read -r link; do
    ln --symbolic --force --no-dereference --relative "$folder$(readlink "$link")" "$link"
  done
  echo "$*" >"$folder.packages"
}

jdks() { readlink -f "$1"/usr/lib/jvm/*/lib/server/libjvm.so | sed 's#/lib/server/libjvm.so$##' | sort -u; }
