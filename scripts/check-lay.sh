#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Lays a session of four users with a flash and a beep each second, and measures marks and speed; then
# records two users, kills the recorder twice meanwhile, and measures the films of that. A table on
# standard output, exit status 1 when one is out of its bounds. Argument: --seconds N.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/install-deps.sh >&2
cmake --preset release >&2
cmake --build --preset release --target zelta-lay zelta-record ZeltaCoreService -- --quiet >&2
exec python3 scripts/media/check_lay.py "$@"
