#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the tests and what they run, of a preset (release unless named otherwise: debug, asan, tsan).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}

echo "== setting up"
scripts/install-deps.sh test browser python node
echo "== building $preset"
# Those of other languages aren't built with sanitizers, whatever is asked for.
cmake --preset "$preset" -DZELTA_BUILD_TESTS=ON -DZELTA_BUILD_JAVA=ON -DZELTA_BUILD_NODE=ON \
  -DZELTA_BUILD_PYTHON=ON >/dev/null
cmake --build --preset "$preset" -- --quiet
