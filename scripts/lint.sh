#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the format, which way includes go and the types of the Python package, and runs clang-tidy over
# everything, which takes an hour of a processor. With --changed clang-tidy reads only what changed since the commit that
# scripts/lint/checked names, whose every file it has read: sources, and of a header that changed the
# first source that includes it.
set -euo pipefail
cd "$(dirname "$0")/.."
case ${1:-} in
  "" | --changed) ;;
  *) echo "lint.sh: unknown argument \"$1\": it should be --changed, or none" >&2; exit 2 ;;
esac

scripts/install-deps.sh test bench lint node
mapfile -t sources < <(git ls-files -co --exclude-standard '*.cpp' '*.h')
echo "== clang-format"
clang-format-14 --dry-run -Werror "${sources[@]}"
echo "== arrows"
scripts/lint/arrows.py
echo "== mypy"
MYPYPATH=bindings/python mypy --strict --cache-dir build/mypy bindings/python/zelta_recording examples/python
cmake --preset release -DZELTA_BUILD_TESTS=ON -DZELTA_BUILD_BENCH=ON -DZELTA_BUILD_JAVA=ON -DZELTA_BUILD_NODE=ON >/dev/null
# With it javac writes the header of the JNI library.
cmake --build --preset release --target zelta_recording_jar -- --quiet
files=("$PWD/(src|tools|tests|bench|bindings|fuzz|examples)/")
if [ "${1:-}" = --changed ]; then
  mapfile -t files < <(scripts/lint/changed.py)
fi
echo "== clang-tidy ${1:-}"
[ ${#files[@]} -eq 0 ] || run-clang-tidy-14 -quiet -p build/release "${files[@]}" >build/tidy.log 2>&1 ||
  { grep -E '(warning|error):' build/tidy.log | sort -u; exit 1; }
