#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Holds what is said of refused methods to those that src/ refuses: each is deprecated in Java and no
# other one is, and docs/instead-of.md has a replacement for none that is offered.
set -euo pipefail
cd "$(dirname "$0")/.."
refused=$(sed -nE 's/^QUARVEL_[A-Z_]+\(\w+, [A-Za-z]*_(\w+),.*/\1/p' src/*.cpp | sort)
sed -n '/@Deprecated/,/;/s/.* native .* \(\w*\)(.*/\1/p' java/it/quarvel/pkcs11/nat/*.java |
  grep -vx getRSAcredential | sort | # which fails in its own way
  diff --label 'refused in src/' --label 'deprecated in Java' -u0 <(echo "$refused") -
# shellcheck disable=SC2016  # Markdown
for name in $(sed -n '/^| `/s/^| \([^|]*\)|.*/\1/p' docs/instead-of.md | grep -o '`[^`]*`' | tr -d '`'); do
  grep -x "${name/…/.*}" <<<"$refused" >/dev/null ||
    { echo "docs/instead-of.md has something instead of $name, which is offered" >&2; exit 1; }
done
