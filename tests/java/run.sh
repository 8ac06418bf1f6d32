#!/bin/sh
# Runs the tests in Java on a throwaway token: run.sh JDK JAR CLASSES [MODULE [TEST]], the module as
# withModule.sh names it. Everything that -Xcheck:jni has to say fails them, but for its note on how
# many local references a long template takes.
set -eu
jdk=$1 jar=$2 classes=$3 module=${4-softhsm2}
export TESTS="${5-.*Test}"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
junit=$(find /usr/share/java -maxdepth 1 \( -name 'junit-platform-*.jar' -o -name 'junit-jupiter*.jar' \
  -o -name 'opentest4j.jar' -o -name 'apiguardian-api.jar' -o -name 'picocli.jar' \) |
  tr '\n' ':')
export CLASSES="$classes" JAVA="$jdk/bin/java" CLASS_PATH="$jar:$classes:$junit"
status=0
# shellcheck disable=SC2016  # for the inner shell, which knows the token
"$(dirname "$0")/../withModule.sh" "$module" sh -c 'exec "$JAVA" -Xcheck:jni -cp "$CLASS_PATH" \
  -Dquarvel.module="$QUARVEL_PKCS11_MODULE" -Dquarvel.pin="$QUARVEL_PIN" \
  -Dquarvel.soPin="$QUARVEL_SO_PIN" \
  org.junit.platform.console.ConsoleLauncher --disable-banner --disable-ansi-colors \
  --fail-if-no-tests --include-classname "$TESTS" --scan-classpath "$CLASSES"' >"$log" 2>&1 || status=$?
cat "$log"
if grep -E 'FATAL|WARNING in native|WARNING: JNI' "$log" | grep -v 'JNI local refs'; then
  echo "-Xcheck:jni has something to say" >&2
  exit 1
fi
exit "$status"
