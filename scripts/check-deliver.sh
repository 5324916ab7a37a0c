#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Kills zelta-deliver, its servers and the network between them at random moments while recordings are
# delivered, and checks that every file arrived whole and none was deleted before.
#
#   scripts/check-deliver.sh [KILLS [SEED]] [--files N] [--largest MB] [--interval S]
#
# 100 kills, if nothing is said, and small files; from 500 on 2000 files of up to 300 MB, for about an
# hour. Needs a release build and what `scripts/install-deps.sh deliver` brings; s3rver comes from npm
# into a temporary folder. The network is cut where root runs this: servers are in a namespace then.
#
#   scripts/check-deliver.sh archive [FOLDERS]
#
# What 10000 finished folders cost under --watch.
set -euo pipefail
cd "$(dirname "$0")/.."
export ZELTA_BIN=${ZELTA_BIN:-$PWD/build/release/bin} PYTHONDONTWRITEBYTECODE=1
folder=$(mktemp -d)
namespace=zelta-deliver-$$
end() {
  # Left by a torture that was killed itself.
  [ ! -e "/run/netns/$namespace" ] || ip netns del "$namespace"
  rm -rf "$folder"
}
trap end EXIT

if [ "${1:-}" = archive ]; then
  python3 tests/zelta-deliver/archive.py "$folder/run" "${2:-10000}"
  exit
fi
command -v nginx >/dev/null || { echo "check-deliver.sh: nginx is missing: apt install nginx-light" >&2; exit 2; }
command -v age >/dev/null || { echo "check-deliver.sh: age is missing: apt install age" >&2; exit 2; }

# Before the options.
counts=()
for name in --kills --seed; do
  [[ "${1:-}" =~ ^[0-9]+$ ]] || break
  counts+=("$name" "$1")
  shift
done

s3rver=()
if command -v npm >/dev/null && npm install --prefix "$folder/npm" --no-audit --no-fund \
    --loglevel=error s3rver@3.7.1 >"$folder/npm.log" 2>&1; then
  s3rver=(--s3rver "$folder/npm/node_modules/s3rver")
else
  echo "check-deliver.sh: without s3rver, which npm could not bring: $(tail -n 1 "$folder/npm.log" 2>/dev/null || echo there is no npm)" >&2
fi
python3 tests/zelta-deliver/torture.py "$folder/run" --namespace "$namespace" "${s3rver[@]}" \
  "${counts[@]}" "$@"
