#!/bin/bash
# What PKCS11_ZOV_DEBUG adds to the log, and what still reaches standard output before it:
# traceLog.sh JAVA CLASSPATH. Addresses, slots and sessions are the module's and read X.
set -euo pipefail
java=$1 class_path=$2

. "$(dirname "$0")/token.sh"
start_module softhsm2
work=$TOKEN_DIR

log=/var/tmp/vorlenk0.log
if [ -L "$log" ] || { [ -e "$log" ] && [ ! -O "$log" ]; }; then
  echo "$log is a link or somebody else's"
  exit 1
fi
before=$(stat --format %s "$log" 2>/dev/null || echo 0)
PKCS11_ZOV_DEBUG='' "$java" -cp "$class_path" TraceLog "$QUARVEL_PKCS11_MODULE" "$QUARVEL_PIN" \
  >"$work/stdout"
printf 'getenv done \nredirecting stdout to %s ' "$log" | diff - "$work/stdout"

tail -c +"$((before + 1))" "$log" |
  sed -E 's/(Done: |ptr=)[0-9a-f]{6,}/\1X/; s/(value= |slot= |session[=]? ?=?)-?[0-9]+/\1X/' \
    >"$work/actual"
load='JNI: start loadPKCS11Library (arg= /usr/lib/softhsm/libsofthsm2.so)
JNI:BRIDGE: Start loading library... Done: X
JNI:BRIDGE: Getting FuncList address... Done: X
JNI:BRIDGE: Calling FuncList... Done: X
JNI: library loaded: (FuncList ptr=X)
JNI: end loadPKCS11Library'
cat >"$work/expected" <<END
setting debug to 1
$load
JNI: PKCS11.libInitialize
JNI:BRIDGE: Initializing... Done: 0
JNI: start PKCS11.getSlotList
JNI:BRIDGE: Calling C_GetSlotList... (slots=2)... 0 Done
JNI: creating array of 2 PKCS11Slot
JNI: adding element 0 ... value= X ... OK
JNI: adding element 1 ... value= X ... OK
JNI: start PKCS11Slot.getInfo... (slot= X)
JNI:BRIDGE: Calling C_OpenSession... Done(session=X)
JNI: creating jobject NativePKCS11Session...OK
JNI: start PKCS11Session.login... (session= X)
JNI:BRIDGE: Calling C_Login (l=4)... Done
JNI: start PKCS11Session.closeSession... (session= X)
JNI:BRIDGE: Calling C_CloseSession... Done
JNI: PKCS11.libFinalize
JNI:BRIDGE: Finalizing... Done: 0
JNI:BRIDGE: It's ok the dlclose ???JNI:BRIDGE: It's ok the dlclose !!!getenv done 
redirecting stdout to $log setting debug to 1
$load
END
diff "$work/expected" "$work/actual"
