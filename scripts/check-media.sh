#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Plays media with a flash and a beep each second through real RTP senders into the recorder, in
# every mode, and measures what was recorded: a table on standard output, exit status 1 when a
# measurement is out of its bounds. Arguments: names of modes, --seconds N, --loss-seconds N.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/install-deps.sh test >&2
cmake --preset release -DZELTA_BUILD_TESTS=ON >&2
cmake --build --preset release --target zelta-record ZeltaCoreService -- --quiet >&2
exec python3 scripts/media/check_media.py "$@"
