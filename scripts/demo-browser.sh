#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a clean clone to a recorded browser: sets up, builds, lets a headless Chromium publish its
# test picture for 6 s, and shows what ffprobe says of the file, and the page as it looked.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== setting up"
scripts/install-deps.sh browser
echo "== building"
cmake --preset release -DZELTA_BUILD_TESTS=OFF >/dev/null
progress=()
[ -t 1 ] || progress=(-- --quiet)
cmake --build --preset release --target zelta-record ZeltaCoreService "${progress[@]}"

out=$(mktemp -d "${TMPDIR:-/tmp}/zelta-demo.XXXXXX")
port=$(/usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

echo "== recording a browser for 6 s"
mkfifo "$out/events"
build/release/bin/zelta-record meeting --server "whip:127.0.0.1:$port" --json \
  --record-file-root-dir "$out" >"$out/events" &
recording=$!
trap 'kill "$recording" 2>/dev/null || true' EXIT
exec 3<"$out/events"
url=
while [ -z "$url" ] && read -r event <&3; do
  url=$(sed -n 's/.*"event":"page".*"url":"\([^"]*\)".*/\1/p' <<<"$event")
done
[ -n "$url" ] || { echo "the recording ended before it said which page to open" >&2; exit 1; }
echo "the page: $url"
cat <&3 >"$out/events.json" &
/usr/bin/python3 scripts/webrtc/publish.py "$url" 6 "$out/page.png"
kill -TERM "$recording"
wait "$recording"
trap - EXIT

folder=$(dirname "$(find "$out" -name recording.json)")
echo "== files in $folder"
for file in "$folder"/*_*.*; do
  case "$file" in *.mp4 | *.webm | *.m4a) ;; *) continue ;; esac
  echo "$(basename "$file"):"
  ffprobe -v error -show_entries stream=codec_type,codec_name,width,height,duration \
    -of compact=p=0 "$file" | sed 's/^/  /'
done
echo "the page as it looked: $out/page.png"
