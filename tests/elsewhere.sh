#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Sourced by a script JAR DEMO CACHE that runs the jar and the demo on other systems. Beside token.sh
# and $jar, $demo and $cache as whole paths it gives:
# `unpack FOLDER SUITE ARCHITECTURE PACKAGE...` makes a folder of Debian packages and all that they
# depend on, in the suite and for the architecture named, as a root file system would have them. Root
# is not needed: apt keeps a state of its own beside the folder, and nothing of the machine's packages
# changes. The mirror is that of the machine's apt. A folder that holds these packages stays.
# `jdks FOLDER` lists the Java virtual machines there, each once whatever its links are called.
# `passes NAME COMMAND...` shows the last line of what the command prints, all of it where it fails.
# `demo NAME MODULE COMMAND...` so runs the demo on the token; COMMAND runs Java.
set -euo pipefail
tests=$(dirname "$(readlink -f "$0")")
mkdir -p "$3"
# shellcheck disable=SC2034  # cache is for that script
jar=$(readlink -f "$1") demo=$(readlink -f "$2") cache=$(readlink -f "$3")
. "$tests/token.sh"

unpack() {
  local folder=$1 suite=$2 architecture=$3 state=$1.apt mirror file link
  shift 3
  [ "$*" != "$(cat "$folder.packages" 2>/dev/null)" ] || return 0
  rm -rf "$folder" "$folder.packages"
  mkdir -p "$folder"/usr/{bin,lib,lib64} \
    "$state"/{etc/apt,var/lib/apt/lists/partial,var/cache/apt/archives/partial}
  ln -s usr/bin usr/lib usr/lib64 "$folder/" # as every Debian is by now
  # shellcheck disable=SC2016  # apt's own fields
  mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(COMPONENT)' \
    'Created-By: Packages' 'Origin: Debian' | awk '$2 !~ /-/ && $3 == "main" {print $1; exit}')
  [ -n "$mirror" ] || { echo "apt here has no sources of Debian: run apt-get update" >&2; return 1; }
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
    >"$state/etc/apt/sources.list"
  : >"$state/status"
  local get=(apt-get -qq -o "Dir=$state" -o "Dir::State::status=$state/status" -o APT::Sandbox::User=root
    -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture")
  "${get[@]}" update
  "${get[@]}" install --yes --no-install-recommends --download-only "$@" >/dev/null
  for file in "$state"/var/cache/apt/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$file" |
      tar --extract --no-same-owner --keep-directory-symlink --directory "$folder"
  done
  find "$folder" -lname '/*' | while read -r link; do
    ln --symbolic --force --no-dereference --relative "$folder$(readlink "$link")" "$link"
  done
  echo "$*" >"$folder.packages"
}

jdks() { readlink -f "$1"/usr/lib/jvm/*/lib/server/libjvm.so | sed 's#/lib/server/libjvm.so$##' | sort -u; }

# What -Xcheck:jni has to say is a failure too.
passes() {
  if ! "${@:2}" >"$TOKEN_DIR/out" 2>&1 ||
    grep -E '(FATAL ERROR|WARNING) in native method' "$TOKEN_DIR/out"; then
    echo "$1 fails:"
    cat "$TOKEN_DIR/out"
    exit 1
  fi
  echo "$1: $(tail -n 1 "$TOKEN_DIR/out")"
}

# The client of a server only reads, since it does not know all mechanisms of the demo.
demo() {
  local write=(--write)
  [[ "$2" != *client* ]] || write=()
  passes "$1" "${@:3}" --enable-native-access=ALL-UNNAMED -cp "$jar:$demo" Demo --module "$2" \
    --pin "$QUARVEL_PIN" --label "$QUARVEL_TOKEN" --key demo-key "${write[@]}"
}
