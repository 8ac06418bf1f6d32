#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests in Java on a throwaway token: run.sh JDK JAR CLASSES [MODULE [TEST]], the module as
# token.sh names it. Everything that -Xcheck:jni has to say fails them, but for its note on how many
# local references a long template takes.
set -euo pipefail
jdk=$1 jar=$2 classes=$(readlink -f "$3") module=${4-softhsm2} test=${5-.*Test}
. "$(dirname "$0")/../token.sh"
quick_java
start_module "$module"

junit=$(printf '%s:' /usr/share/java/junit-platform-*.jar /usr/share/java/junit-jupiter*.jar \
  /usr/share/java/{opentest4j,apiguardian-api,picocli}.jar)
QUARVEL_KEYS=$(readlink -f "$(dirname "$0")/../provider/keys.sh")
export QUARVEL_KEYS QUARVEL_CLASSES=$classes
"$jdk/bin/java" -Xcheck:jni -cp "$jar:$classes:$junit" \
  org.junit.platform.console.ConsoleLauncher --disable-banner --disable-ansi-colors \
  --fail-if-no-tests --include-classname "$test" --scan-classpath "$classes" \
  >"$TOKEN_DIR/log" 2>&1 || { cat "$TOKEN_DIR/log"; exit 1; }
grep -E 'tests (successful|failed)' "$TOKEN_DIR/log"
if grep -E 'FATAL|WARNING in native|WARNING: JNI' "$TOKEN_DIR/log" | grep -v 'JNI local refs'; then
  echo "-Xcheck:jni has something to say" >&2
  exit 1
fi
