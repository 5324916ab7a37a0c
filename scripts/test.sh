#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a clean clone to passed tests: sets up, builds and runs the tests of a preset (release unless
# named otherwise: debug, asan, tsan).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}

echo "== setting up"
scripts/install-deps.sh test browser
echo "== building $preset"
cmake --preset "$preset" -DZELTA_BUILD_TESTS=ON >/dev/null
cmake --build --preset "$preset" -- --quiet
echo "== testing $preset"
ctest --preset "$preset"
