#!/bin/bash
# Runs a command with one real PKCS#11 module, started in a temporary folder and a mount namespace of
# its own and ended afterwards: withModule.sh MODULE COMMAND ARG...
# QUARVEL_PKCS11_MODULE, QUARVEL_TOKEN (a label) and QUARVEL_PIN (empty: the token has none) tell the
# command about it. Exit status 77: the module cannot be had here.
# MODULE: softhsm2 spy opencryptoki nss tpm2 trust server
set -euo pipefail
module=$1
shift
libraries=/usr/lib/$(gcc -print-multiarch)
soft=/usr/lib/softhsm/libsofthsm2.so
self=$(readlink -f "$0")
folder=$(dirname "$self")

need() {
  local file
  for file in "$@"; do
    [ -e "$file" ] || command -v "$file" >/dev/null || { echo "skipped: $file is not here"; exit 77; }
  done
}

# Starts over inside a mount namespace.
in_namespace() {
  [ -z "${QUARVEL_NAMESPACE-}" ] || return 0
  unshare -m true 2>/dev/null || { echo "skipped: no mount namespace for this user"; exit 77; }
  QUARVEL_NAMESPACE=1 exec unshare -m "$self" "$module" "$@"
}

# p11-kit then shows the modules of one folder alone.
only_modules_of() { mount --bind "$1" /usr/share/p11-kit/modules; }

make_folder() {
  work=$(mktemp -d)
  trap 'end_all; rm -rf "$work"' EXIT
}
# What a module started and has to be ended.
end_all() { :; }

run() {
  export QUARVEL_PKCS11_MODULE=$1 QUARVEL_TOKEN=$2 QUARVEL_PIN=$3
  shift 3
  "$@"
}

case $module in
  softhsm2)
    need $soft softhsm2-util
    exec "$folder/withToken.sh" env QUARVEL_PKCS11_MODULE=$soft QUARVEL_TOKEN=demo "$@"
    ;;
  spy)
    need $soft softhsm2-util "$libraries/pkcs11-spy.so"
    exec "$folder/withToken.sh" env PKCS11SPY=$soft PKCS11SPY_OUTPUT=/dev/null \
      QUARVEL_PKCS11_MODULE="$libraries/pkcs11-spy.so" QUARVEL_TOKEN=demo "$@"
    ;;
  opencryptoki)
    need "$libraries/pkcs11/libopencryptoki.so" pkcsslotd pkcsconf
    in_namespace "$@"
    make_folder
    for tmpfs in /var/lib/opencryptoki /run /dev/shm; do mount -t tmpfs none $tmpfs; done
    install -d -m0770 -g pkcs11 /run/lock /run/lock/opencryptoki /run/lock/opencryptoki/swtok \
      /var/lib/opencryptoki/swtok /var/lib/opencryptoki/swtok/TOK_OBJ
    pkcsslotd
    end_all() { kill "$(cat /run/pkcsslotd.pid)" || true; }
    # The daemon detaches before it is ready.
    for _ in $(seq 50); do
      [ -s /run/pkcsslotd.pid ] && pkcsconf -t >/dev/null 2>&1 && break
      sleep 0.1
    done
    echo demo | pkcsconf -I -c 3 -S 87654321 >/dev/null
    pkcsconf -P -c 3 -S 87654321 -n 12345678 >/dev/null
    pkcsconf -u -c 3 -S 12345678 -n 1234 >/dev/null
    run "$libraries/pkcs11/libopencryptoki.so" demo 1234 "$@"
    ;;
  nss)
    need "$libraries/libsoftokn3.so" "$libraries/p11-kit-proxy.so" certutil
    in_namespace "$@"
    make_folder
    mkdir "$work/nss" "$work/modules"
    printf 1234 >"$work/pin"
    certutil -N -d "sql:$work/nss" -f "$work/pin"
    cat >"$work/modules/nss.module" <<END
module: $libraries/libsoftokn3.so
x-init-reserved: configdir='sql:$work/nss' certPrefix='' keyPrefix='' secmod='' flags= dbTokenDescription='demo' cryptoTokenDescription='generic'
END
    only_modules_of "$work/modules"
    run "$libraries/p11-kit-proxy.so" generic '' "$@"
    ;;
  tpm2)
    tpm=$libraries/pkcs11/libtpm2_pkcs11.so
    need "$tpm" swtpm pkcs11-tool "$libraries/p11-kit-proxy.so"
    in_namespace "$@"
    make_folder
    mkdir "$work/state" "$work/store" "$work/modules"
    port=$((20000 + $$ % 20000))
    export TPM2_PKCS11_STORE=$work/store TSS2_LOG=all+NONE
    export TPM2_PKCS11_TCTI="swtpm:host=127.0.0.1,port=$port"
    swtpm socket --tpm2 --tpmstate "dir=$work/state" --flags not-need-init,startup-clear \
      --server "type=tcp,port=$port,bindaddr=127.0.0.1" \
      --ctrl "type=tcp,port=$((port + 1)),bindaddr=127.0.0.1" --pid "file=$work/pid" --daemon
    end_all() { kill "$(cat "$work/pid")" || true; }
    pkcs11-tool --module "$tpm" --init-token --slot-index 0 --label demo --so-pin 12345678 >/dev/null 2>&1
    pkcs11-tool --module "$tpm" --token-label demo --init-pin --so-pin 12345678 --pin 1234 >/dev/null 2>&1
    echo "module: $tpm" >"$work/modules/tpm2.module"
    only_modules_of "$work/modules"
    run "$libraries/p11-kit-proxy.so" demo 1234 "$@"
    ;;
  trust)
    need "$libraries/pkcs11/p11-kit-trust.so"
    make_folder
    run "$libraries/pkcs11/p11-kit-trust.so" '' '' "$@"
    ;;
  server)
    need $soft softhsm2-util p11-kit "$libraries/pkcs11/p11-kit-client.so"
    if [ -z "${TOKEN_DIR-}" ]; then exec "$folder/withToken.sh" "$self" server "$@"; fi
    eval "$(p11-kit server --provider $soft --name "$TOKEN_DIR/p11.sock" 'pkcs11:token=demo')"
    trap 'kill "$P11_KIT_SERVER_PID" 2>/dev/null || true' EXIT
    run "$libraries/pkcs11/p11-kit-client.so" demo 1234 "$@"
    ;;
  *)
    sed -n '2,7p' "$self" >&2
    exit 2
    ;;
esac
