#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# One real PKCS#11 module, started in a temporary folder and ended with the script; the user's own
# tokens and configuration are left alone. Sourced, it gives `start_module MODULE` and `fill_token`;
# called, it runs a command: token.sh MODULE COMMAND ARG...
# QUARVEL_PKCS11_MODULE is the module's file, QUARVEL_TOKEN the token's label, QUARVEL_PIN and
# QUARVEL_SO_PIN are its PINs (empty: it has none), TOKEN_DIR is a folder that goes when the script
# ends. A module that cannot be had here ends the script with status 77.
# MODULE: softhsm2 spy opencryptoki nss proxy tpm2 trust server opensc; proxy is softhsm2 and nss, opensc
# whatever card is in the reader, and QUARVEL_CARD_PIN its PIN.
# shellcheck disable=SC2317  # what a trap calls
set -euo pipefail

token_libraries=/usr/lib/$(uname -m)-linux-gnu
token_arguments=("$@")

skip() {
  echo "skipped: $1"
  exit 77
}

need() {
  local file
  for file; do
    [ -e "$file" ] || command -v "$file" >/dev/null || skip "$file is not here"
  done
}

# Starts the script over in a mount namespace of its own.
in_namespace() {
  [ -z "${QUARVEL_NAMESPACE-}" ] || return 0
  unshare -m true 2>/dev/null || skip "no mount namespace for this user"
  rm -rf "${TOKEN_DIR-}"
  QUARVEL_NAMESPACE=1 exec unshare -m "$0" "${token_arguments[@]}"
}

# p11-kit then shows the modules of one folder alone.
only_modules_of() { mount --bind "$1" /usr/share/p11-kit/modules; }

# Ends what a module has started.
end_module() { :; }

is_module() { # FILE LABEL PIN SO_PIN
  export QUARVEL_PKCS11_MODULE=$1 QUARVEL_TOKEN=$2 QUARVEL_PIN=$3 QUARVEL_SO_PIN=$4
}

start_softhsm2() {
  local module=/usr/lib/softhsm/libsofthsm2.so
  need $module softhsm2-util
  mkdir "$TOKEN_DIR/tokens"
  export SOFTHSM2_CONF=$TOKEN_DIR/softhsm2.conf
  printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
    "$TOKEN_DIR/tokens" >"$SOFTHSM2_CONF"
  softhsm2-util --init-token --free --label demo --so-pin 12345678 --pin 1234 >/dev/null
  is_module $module demo 1234 12345678
}

start_spy() {
  need "$token_libraries/pkcs11-spy.so"
  start_softhsm2
  export PKCS11SPY=$QUARVEL_PKCS11_MODULE PKCS11SPY_OUTPUT=/dev/null
  is_module "$token_libraries/pkcs11-spy.so" demo 1234 12345678
}

start_opencryptoki() {
  need "$token_libraries/pkcs11/libopencryptoki.so" pkcsslotd pkcsconf
  in_namespace
  local folder
  for folder in /var/lib/opencryptoki /run /dev/shm; do mount -t tmpfs none $folder; done
  install -d -m0770 -g pkcs11 /run/lock /run/lock/opencryptoki /run/lock/opencryptoki/swtok \
    /var/lib/opencryptoki/swtok /var/lib/opencryptoki/swtok/TOK_OBJ
  pkcsslotd
  end_module() {
    kill "$(cat /run/pkcsslotd.pid)"
    umount /dev/shm /run /var/lib/opencryptoki
  }
  # The daemon detaches before it is ready.
  for _ in $(seq 50); do
    [ -s /run/pkcsslotd.pid ] && pkcsconf -t >/dev/null 2>&1 && break
    sleep 0.1
  done
  echo demo | pkcsconf -I -c 3 -S 87654321 >/dev/null
  pkcsconf -P -c 3 -S 87654321 -n 12345678 >/dev/null
  pkcsconf -u -c 3 -S 12345678 -n 1234 >/dev/null
  is_module "$token_libraries/pkcs11/libopencryptoki.so" demo 1234 12345678
}

start_nss() {
  need "$token_libraries/libsoftokn3.so" "$token_libraries/p11-kit-proxy.so" certutil
  in_namespace
  mkdir "$TOKEN_DIR/nss" "$TOKEN_DIR/modules"
  printf 1234 >"$TOKEN_DIR/pin"
  certutil -N -d "sql:$TOKEN_DIR/nss" -f "$TOKEN_DIR/pin"
  cat >"$TOKEN_DIR/modules/nss.module" <<END
module: $token_libraries/libsoftokn3.so
x-init-reserved: configdir='sql:$TOKEN_DIR/nss' certPrefix='' keyPrefix='' secmod='' flags= dbTokenDescription='demo' cryptoTokenDescription='generic'
END
  only_modules_of "$TOKEN_DIR/modules"
  end_module() { umount /usr/share/p11-kit/modules; }
  is_module "$token_libraries/p11-kit-proxy.so" generic '' ''
}

# Both of them as one module, each with a key and its certificate on a token of its name.
start_proxy() {
  start_nss
  sed -i "s/'demo'/'nss'/" "$TOKEN_DIR/modules/nss.module"
  certutil -S -x -d "sql:$TOKEN_DIR/nss" -f "$TOKEN_DIR/pin" -n key -s CN=Demo -t ,, -z "$0" >/dev/null 2>&1
  start_softhsm2
  fill_token
  echo "module: $QUARVEL_PKCS11_MODULE" >"$TOKEN_DIR/modules/softhsm2.module"
  is_module "$token_libraries/p11-kit-proxy.so" demo 1234 12345678
}

start_tpm2() {
  local module=$token_libraries/pkcs11/libtpm2_pkcs11.so port=$((20000 + $$ % 20000))
  need "$module" swtpm pkcs11-tool
  mkdir "$TOKEN_DIR/state" "$TOKEN_DIR/store"
  export TPM2_PKCS11_STORE=$TOKEN_DIR/store TSS2_LOG=all+NONE
  export TPM2_PKCS11_TCTI="swtpm:host=127.0.0.1,port=$port"
  swtpm socket --tpm2 --tpmstate "dir=$TOKEN_DIR/state" --flags not-need-init,startup-clear \
    --server "type=tcp,port=$port,bindaddr=127.0.0.1" \
    --ctrl "type=tcp,port=$((port + 1)),bindaddr=127.0.0.1" --pid "file=$TOKEN_DIR/pid" --daemon
  end_module() { kill "$(cat "$TOKEN_DIR/pid")"; }
  pkcs11-tool --module "$module" --init-token --slot-index 0 --label demo --so-pin 12345678 >/dev/null 2>&1
  pkcs11-tool --module "$module" --token-label demo --init-pin --so-pin 12345678 --pin 1234 >/dev/null 2>&1
  is_module "$module" demo 1234 12345678
}

start_trust() {
  need "$token_libraries/pkcs11/p11-kit-trust.so"
  is_module "$token_libraries/pkcs11/p11-kit-trust.so" '' '' ''
}

start_server() {
  need p11-kit "$token_libraries/pkcs11/p11-kit-client.so"
  start_softhsm2
  eval "$(p11-kit server --provider "$QUARVEL_PKCS11_MODULE" --name "$TOKEN_DIR/p11.sock" 'pkcs11:token=demo')"
  end_module() { kill "$P11_KIT_SERVER_PID"; }
  is_module "$token_libraries/pkcs11/p11-kit-client.so" demo 1234 12345678
}

start_opensc() {
  need "$token_libraries/opensc-pkcs11.so"
  [ -n "${QUARVEL_CARD_PIN-}" ] || skip 'no QUARVEL_CARD_PIN, so perhaps no card'
  is_module "$token_libraries/opensc-pkcs11.so" '' "$QUARVEL_CARD_PIN" ''
}
# quietly COMMAND...: shows what the command prints only where it fails
quietly() { "$@" >"$TOKEN_DIR/log" 2>&1 || { cat "$TOKEN_DIR/log" >&2; return 1; }; }

# Each Java of a script then starts soon, and leaves the other processors alone.
quick_java() { export JDK_JAVA_OPTIONS='-XX:TieredStopAtLevel=1 -XX:+UseSerialGC'; }

start_module() {
  TOKEN_DIR=$(mktemp -d)
  export TOKEN_DIR
  trap 'end_module 2>/dev/null || true; rm -rf "$TOKEN_DIR"' EXIT
  trap 'exit 143' TERM HUP INT
  "start_$1"
}

# A key pair and its certificate, put on the throwaway token as a card would hold them.
fill_token() {
  openssl req -x509 -newkey rsa:2048 -nodes -subj '/CN=Demo' -days 30 -keyout "$TOKEN_DIR/privkey.pem" \
    -out "$TOKEN_DIR/cert.pem" 2>/dev/null
  openssl pkey -in "$TOKEN_DIR/privkey.pem" -pubout -out "$TOKEN_DIR/pubkey.pem"
  local type
  for type in privkey pubkey cert; do
    quietly pkcs11-tool --module "$QUARVEL_PKCS11_MODULE" --login --pin "$QUARVEL_PIN" --id 01 \
      --label demo-key --write-object "$TOKEN_DIR/$type.pem" --type $type
  done
}

if [ "$0" = "${BASH_SOURCE[0]}" ]; then
  if [ $# -lt 2 ] || ! declare -F "start_$1" >/dev/null; then
    sed -n '2,10s/^# //p' "$0" >&2
    exit 2
  fi
  start_module "$1"
  "${@:2}"
fi
