#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Kills recorders ROUNDS times (1000 unless given) and applications a twentieth as often, at random
# moments, and checks what is left: a table on standard output, exit status 1 when something is
# wrong. Arguments: ROUNDS, --engines N, --seconds N, --application-rounds N, --seed N,
# --keep FOLDER.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/reliability/build.sh
exec python3 scripts/reliability/torture.py "$@"
