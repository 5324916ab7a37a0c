#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example in C, the program $1: two users are in two files when it has ended.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
echo '{"Channel_Server": "test:users=2,size=160x90,fps=15"}' >server.json
unset ZELTA_SERVICE_DIR ZELTA_CHANNEL_SERVER ZELTA_FILE_ROOT
"$1" server.json | sort | tee output
test "$(find . -name '*.mp4' -size +1k | wc -l)" -eq 2
test "$(grep -c 'is recorded in' output)" -eq 2
# A channel that nobody can join is an error, and told.
echo '{"Channel_Server": "nonsense:"}' >server.json
if "$1" server.json 2>errors; then exit 1; fi
grep -q 'the engine could not do it' errors
