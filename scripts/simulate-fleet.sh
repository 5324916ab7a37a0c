#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Simulates what docs/scale.md has tables of, with bench/fleet/figures.json as it is now, and writes
# the tables anew. Takes five minutes of a processor, after it was built.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

cmake --preset release -DZELTA_BUILD_BENCH=ON >&2
cmake --build --preset release --target fleet_simulation -- --quiet >&2
exec bench/fleet/fill.py build/release/bin/fleet_simulation docs/scale.md
