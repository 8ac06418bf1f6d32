#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Checks the binding on each real module that starts here, as `quarvel-pkcs11 check --write` does:
# modules.sh write|compare JAVA CLI_JAR PAGE. PAGE is docs/modules.md: "write" makes its table
# anew, "compare" fails when a module now answers otherwise than the page says.
set -euo pipefail
. "$(dirname "$0")/token.sh"
quick_java
# All modules in one mount namespace, where there is one to be had.
if unshare -m true 2>/dev/null; then in_namespace; fi
action=$1 java=$2 cli=$3 page=$(readlink -f "$4")
modules=(softhsm2 spy opencryptoki nss tpm2 trust server opensc)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The check-up of a module: operation, tab, result; nothing for a module that cannot be had here.
check() {
  local module=$1 write=(--write --yes) status
  [ "$module" != trust ] || write=() # a list of certificates: there is nothing to write to
  set +e
  (
    set -e
    start_module "$module"
    "$java" -jar "$cli" check "${write[@]}" ${QUARVEL_TOKEN:+--token "$QUARVEL_TOKEN"} \
      ${QUARVEL_PIN:+--pin env:QUARVEL_PIN}
  ) >"$work/out" 2>"$work/err"
  status=$?
  set -e
  if [ "$status" -eq 77 ]; then
    echo "$module: not run, $(cat "$work/out")" >&2
    return
  fi
  if [ "$status" -gt 1 ] || ! grep -q '^finalise  *works' "$work/out"; then
    echo "$module: the check-up broke off:" >&2
    cat "$work/out" "$work/err" >&2
    exit 2
  fi
  echo "$module: $(tail -n 1 "$work/out")" >&2
  awk -F '  +' 'NR > 1 && NF > 1 {
    print $1 "\t" $2 ($2 ~ /^refused/ ? " " $NF : "") }' "$work/out"
}

# The columns of the modules that ran, in the order of the first one's operations.
for module in "${modules[@]}"; do
  check "$module" >"$work/results"
  [ "$module" != softhsm2 ] || cut -f 1 "$work/results" >"$work/operations"
  echo "$module" >"$work/$module"
  awk -F '\t' -v results="$work/results" '
    FILENAME == results {result[$1] = $2; ran = 1; next}
    {print ($1 in result) ? result[$1] : ran ? "missing" : "not run"}' \
    "$work/results" "$work/operations" >>"$work/$module"
done
(cd "$work" && sed -i '1i operation' operations &&
  paste -d '|' operations "${modules[@]}" |
  sed 's/|/ | /g; s/^/| /; s/$/ |/; 1a | --- | --- | --- | --- | --- | --- | --- | --- | --- |') \
  >"$work/table"
[ "$(wc -l <"$work/table")" -gt 30 ]

# Cell by cell, but for modules that did not run here.
if [ "$action" = compare ]; then
  grep '^|' "$page" | awk -F ' *[|] *' '
    NR == FNR {for (i = 2; i < NF; ++i) said[FNR, i] = $i; lines = FNR; next}
    {for (i = 2; i < NF; ++i) if ($i != "not run" && $i != said[FNR, i]) {
      print $2 ": " $i ", not " said[FNR, i]; bad = 1 }}
    END {exit bad || FNR != lines}' - "$work/table"
  exit
fi
versions="Versions of Debian's packages, $(date -u +%F): $(dpkg-query -W -f '${Package} ${Version}, ' \
  softhsm2 opensc opencryptoki libnss3 libtpm2-pkcs11-1 swtpm p11-kit)"
# The prose around is written by hand.
awk -v table="$(cat "$work/table")" -v versions="${versions%, }." '
  /^Versions of / { print versions; next }
  !/^[|]/
  /^[|]/ && !written++ { print table }' "$page" >"$work/page"
cat "$work/page" >"$page"
