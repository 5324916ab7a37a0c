#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a clean clone to a recording: sets up, builds, records 10 s of two generated users and shows
# what ffprobe says of each file.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== setting up"
scripts/install-deps.sh
# All tools, as what comes after a recording is theirs. Who watches sees how far it is.
echo "== building: minutes, on two processors about four"
cmake --preset release -DZELTA_BUILD_TESTS=OFF >/dev/null
progress=()
[ -t 1 ] || progress=(-- --quiet)
cmake --build --preset release "${progress[@]}"

out=$(mktemp -d "${TMPDIR:-/tmp}/zelta-demo.XXXXXX")
echo "== recording 10 s of two users"
# The first start of GStreamer on a machine looks at all its plugins, which takes seconds.
GST_DEBUG=0 build/release/bin/ZeltaCoreService --help >/dev/null
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
echo "== next"
echo "  build/release/bin/zelta-view $folder    # in a browser"
echo "  build/release/bin/zelta-lay $folder -o call.mp4    # one film"
