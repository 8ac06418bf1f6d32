#!/bin/bash
# Runs the card tests on the software token of NSS behind p11-kit's proxy, in a mount namespace that
# shows p11-kit this module alone: card.sh NATIVE_TESTS. Exit status 77: the namespace cannot be had.
set -euo pipefail
tests=$1

unshare -m true 2>/dev/null || { echo "skipped: no mount namespace for this user"; exit 77; }
libraries=/usr/lib/$(gcc -print-multiarch)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/nss" "$work/modules"
printf 1234 >"$work/pin"
certutil -N -d "sql:$work/nss" -f "$work/pin"
cat >"$work/modules/nss.module" <<END
module: $libraries/libsoftokn3.so
x-init-reserved: configdir='sql:$work/nss' certPrefix='' keyPrefix='' secmod='' flags= dbTokenDescription='demo' cryptoTokenDescription='generic'
END
# shellcheck disable=SC2016  # for the shell inside the namespace
QUARVEL_CARD_MODULE=$libraries/p11-kit-proxy.so unshare -m bash -c \
  'mount --bind "$0" /usr/share/p11-kit/modules && exec "$@"' \
  "$work/modules" "$tests" --gtest_filter='Card.*'
