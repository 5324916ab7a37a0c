#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the format and which way includes go, and runs clang-tidy; needs a configured release build.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test bench lint
mapfile -t sources < <(git ls-files -co --exclude-standard '*.cpp' '*.h')
echo "== clang-format"
clang-format-14 --dry-run -Werror "${sources[@]}"
echo "== arrows"
scripts/lint/arrows.py
echo "== clang-tidy"
cmake --preset release -DZELTA_BUILD_TESTS=ON -DZELTA_BUILD_BENCH=ON >/dev/null
run-clang-tidy-14 -quiet -p build/release "$PWD/(src|tools|tests|bench|fuzz|examples)/" >build/tidy.log 2>&1 ||
  { grep -E '(warning|error):' build/tidy.log | sort -u; exit 1; }
