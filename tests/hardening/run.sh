#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Whether what is shipped was built so that a bug is hard to use: BIN is the folder with it.
set -euo pipefail
bin=$1
status=0
wrong() {
  echo "$1: $2"
  status=1
}

for file in "$bin"/libzelta_recording.so "$bin"/ZeltaCoreService "$bin"/zelta-record "$bin"/zelta-deliver "$bin"/zelta-view; do
  headers=$(readelf --wide --program-headers "$file")
  dynamic=$(readelf --wide --dynamic "$file")
  symbols=$(readelf --wide --dyn-syms "$file")
  name=$(basename "$file")
  grep -q 'GNU_RELRO' <<<"$headers" || wrong "$name" "no RELRO"
  grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || wrong "$name" "not bound at the start"
  grep -qE 'GNU_STACK.* RW ' <<<"$headers" || wrong "$name" "an executable stack"
  grep -qE 'LOAD .* RWE' <<<"$headers" && wrong "$name" "memory that is written and executed"
  grep -qE 'TEXTREL' <<<"$dynamic" && wrong "$name" "code that is changed when it is loaded"
  grep -q '__stack_chk_fail' <<<"$symbols" || wrong "$name" "no guard on the stack"
  grep -qE '__[a-z]+_chk' <<<"$(grep -v __stack_chk <<<"$symbols")" || wrong "$name" "no checked copies"
  grep -qE 'Type:.*DYN' <<<"$(readelf --file-header "$file")" || wrong "$name" "at a fixed address"
done
exit $status
