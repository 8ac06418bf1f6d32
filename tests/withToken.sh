#!/bin/sh
# Runs a command with a throwaway SoftHSM2 token in a temporary folder: label "demo", PIN 1234,
# security officer's PIN 12345678. The user's own tokens and configuration are left alone.
# QUARVEL_MODULE, QUARVEL_PIN, QUARVEL_SO_PIN and TOKEN_DIR tell the command about it.
set -eu

TOKEN_DIR=$(mktemp -d)
trap 'rm -rf "$TOKEN_DIR"' EXIT
trap 'exit 143' TERM HUP INT
mkdir "$TOKEN_DIR/tokens"
export TOKEN_DIR SOFTHSM2_CONF="$TOKEN_DIR/softhsm2.conf"
printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
  "$TOKEN_DIR/tokens" >"$SOFTHSM2_CONF"
export QUARVEL_MODULE=/usr/lib/softhsm/libsofthsm2.so QUARVEL_PIN=1234 QUARVEL_SO_PIN=12345678
softhsm2-util --init-token --free --label demo --so-pin "$QUARVEL_SO_PIN" --pin "$QUARVEL_PIN" \
  >/dev/null
"$@"
