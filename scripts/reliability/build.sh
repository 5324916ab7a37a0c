#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds what torture.py and soak.py run.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/install-deps.sh test >&2
cmake --preset release -DZELTA_BUILD_TESTS=ON >&2
cmake --build --preset release --target engine_farm ZeltaCoreService -- --quiet >&2
