#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Writes the index of the jar's native files: index.sh FOLDER NAME... Each line has CRC-32 and bytes,
# which gzip writes last, and the name.
set -eu
cd "$1"
shift
for name; do
  # shellcheck disable=SC2046,SC2183 # two numbers
  printf '%u %u %s\n' $(gzip -c "$name" | tail -c 8 | od -An -tu4 --endian=little) "$name"
done
