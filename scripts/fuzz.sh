#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fuzzes every parser of bytes that are not ours, with asan and ubsan: for MINUTES each (1 unless
# given), for a number of seconds ("20s") or of executions ("10000000runs") each, as many at a time as
# there are processors. Names of targets may follow. With --build it only builds them. Corpora stay in
# build/fuzz/corpus and grow from run to run; prints executions, coverage and finds a target. Exit
# status 1 after a find, whose input is then in build/fuzz/finds.
set -euo pipefail
cd "$(dirname "$0")/.."
# A fresh process every million executions: GLib's table of names grows in one, and slows it down.
round=1000000
first=${1:-1}
case $first in
  *runs) limit="-runs=$round" rounds=$(((${1%runs} + round - 1) / round)) ;;
  *s) limit="-max_total_time=${1%s}" rounds=1 ;;
  --build) ;;
  *) limit="-max_total_time=$((${1:-1} * 60))" rounds=1 ;;
esac
shift || true

scripts/install-deps.sh fuzz >&2
cmake --preset fuzz >&2
cmake --build --preset fuzz -- --quiet >&2
[ "$first" != --build ] || exit 0
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for program in build/fuzz/bin/fuzz_*; do targets+=("${program##*/fuzz_}"); done
fi

fuzz_one() {
  local target=$1 limit=$2 rounds=$3 folder=build/fuzz/corpus/$1
  mkdir -p "$folder" build/fuzz/finds
  # Nothing of GLib's or GStreamer's own is a leak of ours.
  local leaks="suppressions=tests/lsan.supp:print_suppressions=0"
  ZELTA_FUZZ_SEEDS=$folder LSAN_OPTIONS=$leaks "build/fuzz/bin/fuzz_$target" -runs=0 \
    -artifact_prefix="build/fuzz/finds/$target-" >/dev/null 2>&1 || true
  # Every attribute's name goes into GLib's table of names, whose growth looks like a leak; the
  # replay in the tests, with whole stacks, tells leaks of ours from it.
  local options=detect_leaks=1
  case $target in session_description | webrtc_offer) options=detect_leaks=0 ;; esac
  # A few of these grow the first table; the suppression knows that one by its whole stack.
  [ "$target" != format ] || options+=:fast_unwind_on_malloc=0
  local log=build/fuzz/$target.log status=0 runs=0 coverage
  for ((i = 0; i < rounds && status == 0; ++i)); do
    ASAN_OPTIONS=$options LSAN_OPTIONS=$leaks "build/fuzz/bin/fuzz_$target" "$folder" \
      "$limit" -max_len=8192 -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
      -artifact_prefix="build/fuzz/finds/$target-" >"$log" 2>&1 || status=$?
    runs=$((runs + $(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)))
  done
  coverage=$(grep -oE 'cov: [0-9]+' "$log" | tail -1)
  echo "| $target | $runs | ${coverage#cov: } | $([ "$status" -eq 0 ] && echo none || echo "**see $log**") |"
  return "$status"
}
export -f fuzz_one

echo "| target | executions | coverage | finds |"
echo "|---|---|---|---|"
printf '%s\n' "${targets[@]}" |
  xargs -P "$(nproc)" -I{} bash -c "fuzz_one {} $limit $rounds"
