#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Looks up every class and member that the metadata for native-image names, as javap shows them:
# nativeImage.sh JSON JAVAP CLASSES
set -euo pipefail
jq -er '.[] | select(.name != "[B") | .name as $class
  | [.methods[]?, .fields[]?] | map(.name |= sub("<init>"; $class)
    | .name + (.parameterTypes | if . then "(" + join(", ") + ")" else ";" end))
  | [$class] + . | @tsv' "$1" |
  while IFS=$'\t' read -r -a names; do
    shown=$("$2" -p -cp "$3" "${names[0]}")
    for name in "${names[@]:1}"; do
      grep -F " $name" <<<"$shown" >/dev/null || { echo "${names[0]} has no $name" >&2; exit 1; }
    done
  done
