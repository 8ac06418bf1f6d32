#!/bin/sh
# A thousand cycles of load, initialise and finalise on a throwaway token: cycles.sh JAVA CLASSPATH.
# The virtual machine keeps its own share of the memory small and still.
set -eu
# shellcheck disable=SC2016  # for the inner shell, which knows the token
"$(dirname "$0")/withToken.sh" sh -c 'exec "$@" "$QUARVEL_MODULE"' \
  sh "$1" -Xmx16m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -cp "$2" Cycles
