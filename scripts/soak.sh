#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Records for MINUTES (30 unless given), with 64 users, and for an application that stops, and
# watches memory, descriptors and threads: tables on standard output, exit status 1 when something
# grows. Arguments: MINUTES, --engines N, --only soak|crowd|stall.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/reliability/build.sh
exec python3 scripts/reliability/soak.py "$@"
