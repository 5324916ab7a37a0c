#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Tortures a fleet of three NATS servers and four workers, each in a network namespace of its own, for
# MINUTES (60 unless given), and checks that every recording is over once, plays, and was gone on with:
# tables on standard output, exit status 1 when something is wrong. Arguments: MINUTES, --seed N, --quick,
# --recordings N, --interval S, --most-jobs N, --servers killed|emptied|ended|spared, --keep FOLDER. Needs root, and
# what `scripts/install-deps.sh test fleet` brings. ZELTA_BIN names a folder of programs that are tried as
# they are; without it they are built.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

if [ -z "${ZELTA_BIN:-}" ]; then
  scripts/install-deps.sh test fleet >&2
  cmake --preset release -DZELTA_BUILD_TESTS=ON >&2
  cmake --build --preset release --target zelta-worker zelta-fleet zelta-record ZeltaCoreService -- --quiet >&2
fi
prefix=zelta-fleet-$$
end() {
  # Left by a torture that was killed itself.
  for namespace in /run/netns/"$prefix"-*; do
    [ -e "$namespace" ] || continue
    for pid in $(ip netns pids "${namespace##*/}"); do kill -KILL "$pid" 2>/dev/null || true; done
    ip netns del "${namespace##*/}" || true
  done
}
trap end EXIT
python3 scripts/fleet/check_fleet.py --prefix "$prefix" "$@"
