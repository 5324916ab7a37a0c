#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures the frame path beside bare ways to hand bytes to another process, and writes the table
# and the plot to docs/bench. Exit status 1 when a ratio misses its bound. Arguments go to
# frame_path_bench: --rounds N, --latency-seconds N, --idle-engines N, --variants. Wants a machine
# that does nothing else, for four minutes.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/install-deps.sh bench >&2
cmake --preset release -DZELTA_BUILD_BENCH=ON >&2
cmake --build --preset release --target frame_path_bench -- --quiet >&2
measured=$(mktemp)
trap 'rm -f "$measured"' EXIT
build/release/bin/frame_path_bench "$@" >"$measured"
python3 bench/report.py "$measured" docs/bench
