#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example that measures frames, the program $1: both users are as large and as loud as they
# were made.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
unset ZELTA_CHANNEL_SERVER ZELTA_FILE_ROOT
echo '{"Channel_Server": "test:users=2,size=160x90,fps=15"}' >server.json
"$1" server.json | tee output
for user in 1 2; do
  grep -q "^user $user: pictures of 160x90\$" output
  # Half of each second is a sine at 0.8 of the full scale: 20 log10(0.8) - 3 - 3 dB. Its encoder moves it
  # by tenths.
  awk -v user="$user:" '$2 == user && $4 == "dBFS" { ++seconds; if ($3 < -9 || $3 > -7) wrong = 1 }
    END { exit !(seconds >= 2 && !wrong) }' output
done
# Frames for the application are in no file as well.
test -z "$(find . -name '*.mp4')"
echo '{"Channel_Server": "nonsense:"}' >server.json
if "$1" server.json 2>errors; then exit 1; fi
grep -q '^error 1, 2$' errors
