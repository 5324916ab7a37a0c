#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests of the library for Java: $1 is the program java, $2 the classes of tests and library,
# $3 the folder of the JNI library, $4 the C header; then names of tests, or none for all. The heap is
# small, and what the virtual machine says of wrong calls of JNI fails.
set -euo pipefail
java=$1 classes=$2 libraries=$3 header=$4
shift 4
unset ZELTA_SERVICE_DIR ZELTA_CHANNEL_SERVER ZELTA_FILE_ROOT
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C.UTF-8
cd "$work"
status=0
"$java" -ea -Xcheck:jni -Xmx24m -XX:+UseSerialGC -Djava.io.tmpdir="$work" -Djava.library.path="$libraries" \
  -Dzelta.header="$header" -cp "$classes" Suite "$@" >"$work/said" 2>"$work/errors" || status=1
cat "$work/said"
# "WARNING in native method", "WARNING: JNI local refs", "FATAL ERROR in native method": also on standard
# output, among the lines of the tests.
if grep -E '^(WARNING|FATAL ERROR)' "$work/said" "$work/errors"; then status=1; fi
[ "$status" -eq 0 ] || tail -n 40 "$work/errors"
exit "$status"
