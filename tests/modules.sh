#!/bin/bash
# Checks the binding on each real module that starts here, as `quarvel-pkcs11 check --write` does:
# modules.sh write|compare JAVA CLI_JAR PAGE. PAGE is docs/modules.md: "write" makes it anew,
# "compare" fails when a module now answers otherwise than the page says.
set -euo pipefail
. "$(dirname "$0")/token.sh"
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
of() { dpkg-query -W -f '${Version}' "$1" 2>/dev/null || echo 'not here'; }
cat >"$work/page" <<END
# Modules

Which operations work on which real module, as \`quarvel-pkcs11 check --write\` found it. The objects
are session objects, and nothing stays on a token. Each module is behind the adapter, as
\`PKCS11Module.open\` has it. \`./dev modules\` starts each in a temporary folder, runs the check-up, and
writes this page; \`tests/token.sh\` shows how each is started. Versions are Debian's, of $(date -u +%F).

- **softhsm2**: SoftHSM2 $(of softhsm2); **spy**: SoftHSM2 behind OpenSC's spy $(of opensc).
- **opencryptoki**: the software token of opencryptoki $(of opencryptoki).
- **nss**: the slot "generic" of NSS softokn $(of libnss3), behind p11-kit's proxy, which
  initialises it as it wants. It has no PIN.
- **tpm2**: tpm2-pkcs11 $(of libtpm2-pkcs11-1) on a software TPM (swtpm $(of swtpm)). It keeps
  private objects and keys on the token only, and the check-up makes session objects. Its session
  handles have 64 bits: directly, nothing works that needs a session.
- **trust**: the list of trusted certificates of p11-kit $(of p11-kit), read only.
- **server**: SoftHSM2 in another process, reached through the server and the client of p11-kit.
- **opensc**: OpenSC $(of opensc-pkcs11) on a SmartCard-HSM in software. Debian has no such card, so
  this column is made by hand: where \`QUARVEL_CARD_PIN\` has the PIN of a card, the check-up makes a
  key pair on it and removes it again. Its session and object handles have 64 bits, as with tpm2.

$(cat "$work/table")

"works": tried, and the answer was right; "answered, not verified": Java has no public key to tell.
"refused": the module answered the named return value; "not offered by the module": it lacks the
function. "not readable": a value that is none. "no mechanism": the token lists none that the
operation could use. "nothing to try": no object of the kind. "not asked": no PIN, or nothing may be
written.
"not run": the module could not be had where this page was made.

A token on another machine is reached the same way as **server**: \`p11-kit server\` where the token
is, its socket forwarded (for example by ssh), and \`p11-kit-client.so\` as the module here. When the
server dies, calls raise \`PKCS11Exception\` (\`CKR_DEVICE_ERROR\`); after \`libFinalize\`, a new load
reaches a server that is there again.
END
mv "$work/page" "$page"
