#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Kills zelta-deliver, nginx and a store of S3's protocol at random moments while recordings are
# delivered, and checks that every file arrived whole and none was deleted before.
#
#   scripts/check-deliver.sh [KILLS [SEED]]      # 100 kills; needs nginx, age and a release build
set -euo pipefail
cd "$(dirname "$0")/.."
command -v nginx >/dev/null || { echo "check-deliver.sh: nginx is missing: apt install nginx-light" >&2; exit 2; }
command -v age >/dev/null || { echo "check-deliver.sh: age is missing: apt install age" >&2; exit 2; }
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
ZELTA_BIN=${ZELTA_BIN:-$PWD/build/release/bin} PYTHONDONTWRITEBYTECODE=1 \
  python3 tests/zelta-deliver/torture.py "$folder/run" "${1:-100}" ${2:+"$2"}
