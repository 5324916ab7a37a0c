#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a clean clone to passed tests: sets up, builds and runs the tests of a preset (release unless
# named otherwise: debug, asan, tsan).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}

scripts/build.sh "$preset"
echo "== testing $preset"
ctest --preset "$preset"
