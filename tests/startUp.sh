#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# What a process costs that loads a key store and signs once, through this provider and through the
# JDK's own: startUp.sh ROUNDS JAR CLASSES JDK... For each JDK it prints a row of a table: the classes
# loaded, and the median processor time in milliseconds of so many rounds. It fails where ours loads
# more than 1.05 times the classes or takes more than 1.25 times the time.
set -euo pipefail
rounds=$1 jar=$(readlink -f "$2") classes=$(readlink -f "$3")
. "$(dirname "$(readlink -f "$0")")/token.sh"
start_module softhsm2
fill_token
cd "$TOKEN_DIR"
printf 'name = demo\nlibrary = %s\nslotListIndex = 0\n' "$QUARVEL_PKCS11_MODULE" >theirs
uri="pkcs11:token=$QUARVEL_TOKEN?module-path=$QUARVEL_PKCS11_MODULE"

sign() { # CONFIGURATION [OPTION...]
  "$jdk/bin/java" --enable-native-access=ALL-UNNAMED "${@:2}" -cp "$jar:$classes" StartUp "$1" \
    "$QUARVEL_PIN" demo-key
}

loaded() { # CONFIGURATION
  sign "$1" -Xlog:class+load:file=log | diff - <(echo 256) >&2 && grep -c ' source: ' log
}

milliseconds() { # CONFIGURATION
  local TIMEFORMAT='%U %S'
  { time sign "$1" >/dev/null 2>&1; } 2>&1 | awk '{ print 1000 * ($1 + $2) }'
}

status=0
for jdk in "${@:4}"; do
  : >measured
  for ((i = 0; i < rounds; ++i)); do
    echo "$(milliseconds "$uri") $(milliseconds theirs)" >>measured
  done
  echo "$(sed -n 's/JAVA_VERSION="\(.*\)"/\1/p' "$jdk/release") $(loaded "$uri") $(loaded theirs)" |
    cat - measured | perl -e '
      my ($java, $ours, $theirs) = split " ", <>;
      my $classes = $ours / $theirs;
      my @row = ($java, $ours, $theirs, sprintf "%.2f", $classes);
      my @rounds = map { my @t = split; [@t, $t[0] / $t[1]] } <>;
      my $of = sub { my $i = shift; (sort { $a <=> $b } map { $_->[$i] } @rounds)[@rounds / 2] };
      my $time = 0;
      if (@rounds) { $time = $of->(2); push @row, $of->(0), $of->(1), sprintf "%.2f", $time; }
      print "| ", join(" | ", @row), " |\n";
      exit($classes > 1.05 || $time > 1.25);' || status=1
done
exit $status
