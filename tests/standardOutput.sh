#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What tracing does to descriptor 1 where the log cannot take its place: standardOutput.sh JAVA
# CLASSPATH MODULE. Exit status 77: no mount namespace can be had.
set -eu
java=$1 class_path=$2 module=$3

if [ -z "${INSIDE-}" ]; then
  unshare -m true 2>/dev/null || { echo "skipped: no mount namespace for this user"; exit 77; }
  INSIDE=1 exec unshare -m "$0" "$@"
fi
mount -t tmpfs none /var/tmp
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PKCS11_ZOV_DEBUG=

# A process started without a standard output reads a file of the virtual machine's as descriptor 1:
# it goes on, untraced.
"$java" -cp "$class_path" StandardOutput "$module" "$work/untraced" >&-
test "$(cat "$work/untraced")" = 'its own bytes'
test ! -e /var/tmp/vorlenk0.log

# A log that can be opened at a later load alone: from there on it has what Java prints, too.
mkdir /var/tmp/vorlenk0.log
"$java" -cp "$class_path" StandardOutput "$module" "$work/data" /var/tmp/vorlenk0.log >/dev/null
grep -qx 'JNI: end loadPKCS11Library' /var/tmp/vorlenk0.log
grep -qx 'for the log' /var/tmp/vorlenk0.log

# A log that cannot be opened: the next file that Java opens does not become its standard output.
mount -o remount,ro /var/tmp
"$java" -cp "$class_path" StandardOutput "$module" "$work/data" >"$work/stdout"
test "$(cat "$work/data")" = 'its own bytes'
printf 'getenv done \nredirecting stdout to /var/tmp/vorlenk0.log ' | diff - "$work/stdout"
