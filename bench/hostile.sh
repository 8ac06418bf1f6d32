#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs this library and the JDK's own wrapper on a misbehaving module, for `./dev hostile`. It takes
# some minutes, since each case has a virtual machine of its own. Expects the built library, the
# tests' scripted module and JAVA_HOME.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
out=build/hostile

operations=(INFO SLOT_LIST SLOT_INFO TOKEN_INFO MECHANISM_LIST MECHANISM_INFO OPEN_SESSION
  SESSION_INFO FIND_ONE READ NEW_SIGNATURE ENCRYPT DECRYPT CREATE GENERATE_KEY NEW_WRAPPED_KEY
  UNWRAP_KEY)
# The sizes that the module tells in its first and second answer: in words, and as it takes them.
lies=('3, then 4=3 4' '3, then 1,000,000=3 1000000' '2^31 twice=0x80000000 0x80000000'
  '2^60 twice=0x1000000000000000 0x1000000000000000' '3, then 2^64-1=3 0xFFFFFFFFFFFFFFFF'
  '2^64-1 twice=0xFFFFFFFFFFFFFFFF 0xFFFFFFFFFFFFFFFF')
exports=(--add-modules jdk.crypto.cryptoki
  --add-exports "jdk.crypto.cryptoki/sun.security.pkcs11.wrapper=ALL-UNNAMED")
"$JAVA_HOME/bin/javac" "${exports[@]}" -cp build/quarvel-pkcs11.jar -d "$out" bench/java/*.java
java=("$JAVA_HOME/bin/java" -Xmx1g -XX:TieredStopAtLevel=1 -XX:-CreateCoredumpOnCrash
  -XX:ErrorFile=/dev/null "${exports[@]}" --enable-native-access=ALL-UNNAMED
  -cp "$out:build/quarvel-pkcs11.jar" Hostile)
# A subject may try to hold a list of 2^31 items twice, which must not exhaust the machine.
ulimit -v 12582912

# outcome SUBJECT OPERATION: runs the operation and writes its outcome into the file SUBJECT
outcome() {
  local status=0 signal
  { timeout -k 5 20 "${java[@]}" "$1" build/tests/libscripted.so "$2" >"$out/$1.out" 2>&1; } \
    2>/dev/null || status=$?
  case $status in
    0) tail -n 1 "$out/$1.out" | sed 's/^outcome: //' ;;
    124 | 137) echo hang ;;
    *)
      signal=$(grep -aom 1 'SIG[A-Z]\{3,4\}' "$out/$1.out" || true)
      echo "crash (status $status${signal:+, $signal})"
      ;;
  esac >"$out/$1"
}

# cases MISBEHAVIOUR: prints for each operation a line with the two outcomes
cases() {
  local operation
  for operation in "${operations[@]}"; do
    outcome library "$operation" &
    outcome jdk "$operation"
    wait
    printf '%s\t%s\t%s\t%s\n' "$1" "$operation" "$(<"$out/library")" "$(<"$out/jdk")"
  done
}

# The module prints the names in the order of their numbers, and ends the program that was to fail.
names=$(env QUARVEL_MISBEHAVIOUR=names LD_PRELOAD=build/tests/libscripted.so false)
mapfile -t misbehaviours <<<"$names"
{
  for number in "${!misbehaviours[@]}"; do
    QUARVEL_MISBEHAVIOUR=$number cases "${misbehaviours[number]}"
  done
  for lie in "${lies[@]}"; do
    QUARVEL_LIES=${lie#*=} cases "says ${lie%=*}"
  done
} | awk -F '\t' '
  BEGIN { print "| The module | Operation | This library | The JDK\x27s wrapper |\n|---|---|---|---|" }
  { library += $3 ~ /^(crash|hang)/; jdk += $4 ~ /^(crash|hang)/ }
  NR == 1 { good = $1 }
  $1 == good { usual[$2] = $3 FS $4 }
  $1 != good && usual[$2] == $3 FS $4 { ++alike; next }
  { print "| " $1 " | " $2 " | " $3 " | " $4 " |" }
  END {
    print "\n" NR " cases for each. Left out: " (alike + 0) " in which both did as in the first rows."
    print "Crashed or hung: " library " for this library, " jdk " for the JDK\x27s wrapper."
    exit library != 0
  }'
