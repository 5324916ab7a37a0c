#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures the recorder's CPU time and memory beside a bare gst-launch pipeline that does the same
# work in the same run, and records a crowd of users with nothing dropped: a table on standard
# output, exit status 1 when a bound is missed. Arguments: --seconds N, --rounds N, --users N,
# --only cost|crowd, --cases TEXT. Wants a machine that does nothing else.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/install-deps.sh test >&2
cmake --preset release -DZELTA_BUILD_TESTS=ON >&2
cmake --build --preset release --target zelta-record ZeltaCoreService -- --quiet >&2
exec python3 scripts/media/check_cost.py "$@"
