#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Puts single faults into copies of the sources and tells which of them no test notices: a table on
# standard output and the list of survivors, exit status 1 when fewer than 95 of 100 are killed.
# Arguments: --count N (300), --seed S, --only GLOB, --jobs J, --list, --again RESULTS. Takes an hour
# or more; docs/testing.md says how to read it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test mutate >&2
exec python3 -B scripts/mutation/mutate.py "$@"
