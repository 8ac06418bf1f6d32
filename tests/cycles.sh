#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# A thousand cycles of load, initialise and finalise on a throwaway token: cycles.sh JAVA CLASSPATH.
# The virtual machine keeps its own share of the memory small and still.
set -euo pipefail
. "$(dirname "$0")/token.sh"
start_module softhsm2
"$1" -Xmx16m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -cp "$2" Cycles "$QUARVEL_PKCS11_MODULE"
