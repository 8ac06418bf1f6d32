#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs a command with a /var/tmp of its own, since a trace goes to a file there that all users share:
# privateLog.sh COMMAND... Where such a view cannot be had, one at a time; the file must be nobody
# else's then, and goes afterwards.
set -euo pipefail
log=/var/tmp/vorlenk0.log

# shellcheck disable=SC2016  # for the shells inside
mounted='mount -t tmpfs -o mode=1777 none /var/tmp && exec "$@"'
if unshare --mount true 2>/dev/null; then
  exec unshare --mount sh -c "$mounted" sh "$@"
elif unshare --map-root-user --mount unshare --user --map-user=1 true 2>/dev/null; then
  exec unshare --map-root-user --mount sh -c "$mounted" sh \
    unshare --user --map-user="$(id -u)" --map-group="$(id -g)" "$@"
fi
exec {lock}<"$0"
flock "$lock"
if [ -e "$log" ] || [ -L "$log" ]; then
  echo "$log is there, and traces would go to it: remove it first" >&2
  exit 1
fi
trap 'rm -f "$log"' EXIT
"$@"
