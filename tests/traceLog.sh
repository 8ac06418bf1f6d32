#!/bin/bash
# What PKCS11_ZOV_DEBUG adds to the log, and what still reaches standard output before it:
# traceLog.sh JAVA CLASSPATH. Addresses read X.
set -euo pipefail
. "$(dirname "$0")/token.sh"
start_module softhsm2
log=/var/tmp/vorlenk0.log
before=$(stat --format %s $log 2>/dev/null || echo 0)
PKCS11_ZOV_DEBUG='' "$1" -cp "$2" TraceLog "$QUARVEL_PKCS11_MODULE" "$QUARVEL_PIN" >"$TOKEN_DIR/stdout"
printf 'getenv done \nredirecting stdout to %s ' $log | diff - "$TOKEN_DIR/stdout"

load="JNI: start loadPKCS11Library (arg= $QUARVEL_PKCS11_MODULE)
JNI:BRIDGE: Start loading library... Done: X
JNI:BRIDGE: Getting FuncList address... Done: X
JNI:BRIDGE: Calling FuncList... Done: X
JNI: library loaded: (FuncList ptr=X)
JNI: end loadPKCS11Library"
# What other calls print is the matter of the native tests.
tail -c +"$((before + 1))" $log |
  sed -E 's/(Done: |ptr=)[0-9a-f]{6,}/\1X/; /PKCS11.getSlotList/,/C_CloseSession/d' |
  diff - <(cat <<END
setting debug to 1
$load
JNI: PKCS11.libInitialize
JNI:BRIDGE: Initializing... Done: 0
JNI: PKCS11.libFinalize
JNI:BRIDGE: Finalizing... Done: 0
JNI:BRIDGE: It's ok the dlclose ???JNI:BRIDGE: It's ok the dlclose !!!getenv done 
redirecting stdout to $log setting debug to 1
$load
END
)
