#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the examples for Java of the folder $4 as their files stand, as who reads them would: $1 is the
# program java, $2 the jar, $3 the folder of the JNI library.
set -euo pipefail
java=$1 jar=$2 libraries=$3 examples=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
unset ZELTA_SERVICE_DIR ZELTA_CHANNEL_SERVER ZELTA_FILE_ROOT
echo '{"Channel_Server": "test:users=2,size=160x90,fps=15"}' >server.json
echo '{"Channel_Server": "nonsense:"}' >wrong.json
example() { "$java" -Djava.library.path="$libraries" -cp "$jar" "$examples/$1.java" "${@:2}" 2>errors; }

example Record server.json | tee output
test "$(grep -c 'is recorded in' output)" -eq 2
test "$(find . -name '*.mp4' -size +1k | wc -l)" -eq 2
if example Record wrong.json; then exit 1; fi
grep -q 'Failure' errors
rm -rf 20*

example Frames server.json >output
for user in 1 2; do
  # Half of each second is a sine at 0.8 of the full scale: 20 log10(0.8) - 3 dB; the rest is silence.
  awk -v user="$user:" '$2 == user && $4 == "dBFS" && $3 > -6 && $3 < -4 { found = 1 } END { exit !found }' output
  awk -v user="$user:" '$2 == user && $3 == "brightness" { if ($4 < 16 || $4 > 235) exit 1; found = 1 }
    END { exit !found }' output
done
test -z "$(find . -name '*.mp4')"
if example Frames wrong.json; then exit 1; fi
rm -rf 20*

example GridLayout server.json 4 | tee output
grep -q '^2 users in ' output
test "$(find . -name 'mix_*.mp4' -size +1k | wc -l)" -eq 1
