#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Records crowds of 20, 100 and 500 users, or of USERS, each with video and sound by RTP or WHIP, and
# measures what a packet costs beside a bare receiver and, for 20, beside as many ffmpeg: a table on
# standard output, exit status 1 when a file isn't whole or a bound is missed. Arguments: USERS...,
# --vp8, --srtp, --whip, --loss PERCENT, --seconds N. Wants a machine that does nothing else, and 3 GB of disk.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/install-deps.sh test >&2
cmake --preset release -DZELTA_BUILD_TESTS=ON -DZELTA_BUILD_BENCH=ON >&2
cmake --build --preset release --target zelta-record ZeltaCoreService crowd_sender bare_receiver -- --quiet >&2
exec python3 scripts/reliability/crowd.py "$@"
