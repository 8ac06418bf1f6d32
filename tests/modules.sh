#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Checks the binding on each real module that starts here, as `quarvel-pkcs11 check --write` does:
# modules.sh write|compare JAVA CLI_JAR PAGE [MODULE...], without a MODULE all of them. PAGE is
# docs/modules.md: "write" prints its table anew, in which a module that did not run keeps its column;
# "compare" fails when a module now answers otherwise than the page says. Both fail where the check-up
# leaves out a function that the library calls.
set -euo pipefail
. "$(dirname "$0")/token.sh"
quick_java
# All modules in one mount namespace, where there is one to be had.
if unshare -m true 2>/dev/null; then in_namespace; fi
action=$1 java=$2 cli=$3 page=$(readlink -f "$4")
# Each with its Debian package, in the order of the columns.
modules=(softhsm2=softhsm2 spy=opensc opencryptoki=opencryptoki nss=libnss3 tpm2=libtpm2-pkcs11-1
  trust=p11-kit server=p11-kit opensc=opensc)
[ $# -gt 4 ] || set -- "$@" "${modules[@]%=*}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# column MODULE PACKAGE: what stands under its name, as {module: {operation: result}}; nothing for a
# module that cannot be had here
column() {
  local module=$1 write=(--write --yes) status=0 package
  [ "$module" != trust ] || write=() # a list of certificates: there is nothing to write to
  (
    set -e
    start_module "$module"
    export PKCS11SPY_OUTPUT=$work/calls
    # This token makes no keys for a session: the check-up signs with one that is there.
    [ "$module" != tpm2 ] || pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" --token-label demo \
      --login --pin 1234 --keypairgen --key-type rsa:2048 --label demo >/dev/null 2>&1
    "$java" -jar "$cli" check --json "${write[@]}" ${QUARVEL_TOKEN:+--token "$QUARVEL_TOKEN"} \
      ${QUARVEL_PIN:+--pin env:QUARVEL_PIN}
  ) >"$work/out" 2>"$work/err" || status=$?
  if [ "$status" -eq 77 ]; then
    echo "$module: not run, $(cat "$work/out")" >&2
    return
  fi
  package=$(dpkg-query -W -f '${Package} ${Version}' "$2")
  if ! jq -ne --arg name "$module" --arg package "$package" --arg date "$(date -u +%F)" \
    'input | select(.error == null)
      | {($name): ({checked: $date, package: $package} + (.operations | map({(.operation):
        (.result + if .result == "refused" or .result == "not made" then " \(.detail)" else "" end)})
        | add))}' "$work/out"; then
    echo "$module: the check-up broke off:" >&2
    cat "$work/out" "$work/err" >&2
    exit 2
  fi
}

for name in "${@:5}"; do
  package=$(printf '%s\n' "${modules[@]}" | sed -n "s/^$name=//p")
  [ -n "$package" ] || { echo "no module $name; there are: ${modules[*]%=*}" >&2; exit 2; }
  column "$name" "$package"
done >"$work/columns"

# A check-up leaves the PINs alone.
if [ -e "$work/calls" ] && grep -o 'LIST::C_\w*' "$(dirname "$0")/../src/pkcs11Bridge.cpp" |
  sed 's/.*:://; /PIN$/d' | grep -vxFf <(grep -o 'C_\w*' "$work/calls") >&2; then
  echo 'no step of the check-up calls these' >&2 && exit 1
fi

# The table has the operations of the first module that ran.
grep '^|' "$page" | jq -nRr --slurpfile ran "$work/columns" '
  def row: "| " + join(" | ") + " |";
  [inputs | ltrimstr("| ") | rtrimstr(" |") | split(" | ")] as $page
  | ($ran | add // {}) as $new
  | ([range(1; $page[0] | length) as $i | {($page[0][$i]): [$page[2:][] | {(.[0]): .[$i]}] | add}]
      | add) + $new
  | . as $columns
  | (["operation"] + $ARGS.positional | (., map("---")) | row),
    ($columns[first($ARGS.positional[] | select($new[.])) // $ARGS.positional[0]]
      | keys_unsorted[] | . as $operation
      | [.] + [$ARGS.positional[] | $columns[.][$operation]
          // if $new[.] then "missing" else "not run" end] | row)' --args "${modules[@]%=*}" >"$work/table"

if [ "$action" = compare ]; then
  diff <(grep '^|' "$page" | sed -E '/^\| (checked|package) /d') \
    <(sed -E '/^\| (checked|package) /d' "$work/table")
else
  cat "$work/table"
fi
