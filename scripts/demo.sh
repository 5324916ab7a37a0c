#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a clean clone to a recording: sets up, builds, records 10 s of two generated users and shows
# what ffprobe says of each file.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== setting up"
scripts/install-deps.sh
# Who watches sees how far it is.
progress=()
[ -t 1 ] || progress=(-- --quiet)
build() { cmake --build --preset release --target "$@" "${progress[@]}"; }
echo "== building the recorder, which takes some minutes"
cmake --preset release -DZELTA_BUILD_TESTS=OFF >/dev/null
build zelta-record ZeltaCoreService

out=$(mktemp -d "${TMPDIR:-/tmp}/zelta-demo.XXXXXX")
echo "== recording 10 s of two users"
build/release/bin/zelta-record --demo --record-file-root-dir "$out"

folder=$(dirname "$(find "$out" -name recording.json)")
echo "== files in $folder"
for file in "$folder"/*_*.mp4; do
  echo "$(basename "$file"):"
  ffprobe -v error -show_entries stream=codec_type,codec_name,duration -of compact=p=0 "$file" |
    sed 's/^/  /'
  errors=$(ffmpeg -v error -i "$file" -f null - 2>&1)
  if [ -n "$errors" ]; then
    printf '  decode errors:\n%s\n' "$errors"
    exit 1
  fi
  echo "  decodes without an error"
done
# After the recording, so that there is one as soon as can be.
echo "== building zelta-view and zelta-lay, for what comes now"
build zelta-view zelta-lay
echo "see it in a browser:  build/release/bin/zelta-view $folder"
echo "make one film of it:  build/release/bin/zelta-lay $folder -o call.mp4"
