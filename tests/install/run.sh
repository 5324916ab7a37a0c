#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build tree $1 below $2 and builds and runs the examples' project against it, with
# README.md's own configuration file: by CMake's package, shared and static, and by pkg-config.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$here/../..
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/tree" >/dev/null
# The recorder must be found in the installed tree and the server in the file, not by these.
unset ZELTA_SERVICE_DIR ZELTA_CHANNEL_SERVER ZELTA_FILE_ROOT

# README.md's block of language $1 in the section on the library.
readme_block() {
  sed -n '/^## Use the library/,/^## More/p' "$source/README.md" | sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" |
    sed '/^```/d'
}
readme_block json >"$work/server.json"
grep -q Channel_Server "$work/server.json" || { echo "README.md names no channel server"; exit 1; }
# Each of its lines stands in the example, in that order.
readme_block cpp | awk '
  { gsub(/^ +/, "") }
  NR == FNR { if ($0 != "") wanted[++count] = $0; next }
  at < count && $0 == wanted[at + 1] { ++at }
  END {
    if (count == 0) { print "README.md shows no example"; exit 1 }
    if (at < count) { print "not in examples/record/main.cpp at its place: " wanted[at + 1]; exit 1 }
  }' - "$source/examples/record/main.cpp"

# Runs the program $2 in a folder $1: every file that it lists holds something, of both users.
records() {
  local manifest file
  mkdir "$work/$1"
  (cd "$work/$1" && "$2" "$work/server.json")
  manifest=$(find "$work/$1" -name recording.json)
  python3 - "$manifest" <<'CHECK'
import json, os, sys
files = json.load(open(sys.argv[1]))["files"]
assert len({file["uid"] for file in files}) == 2, files
for file in files:
    assert file["name"].endswith(".mp4"), file
    assert os.path.getsize(os.path.join(os.path.dirname(sys.argv[1]), file["name"])) > 0, file
CHECK
  for file in "$(dirname "$manifest")"/*.mp4; do
    ffprobe -v error -show_entries format=duration -of csv=p=0 "$file"
  done
}

# Builds it in its folder $1: a copy, so that the installed tree is all that it can find.
cp -r "$source/examples" "$work/examples"
examples() {
  cmake -S "$work/examples" -B "$work/examples/$1" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" "${@:2}" >/dev/null
  cmake --build "$work/examples/$1" -- --quiet
}
examples shared
records shared "$work/examples/shared/record"
records c "$work/examples/shared/record_c"
"$here/frames_example.sh" "$work/examples/shared/frames"

libdir=$(dirname "$(dirname "$(find "$work/tree" -name zelta_recording.pc)")")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source/examples/record/main.cpp" -o "$work/record" \
  $(pkg-config --cflags --libs zelta_recording)
LD_LIBRARY_PATH="$libdir" records pkg-config "$work/record"
# shellcheck disable=SC2046
cc -std=c99 "$source/examples/c/record.c" -o "$work/record_c" $(pkg-config --cflags --libs zelta_recording)
LD_LIBRARY_PATH="$libdir" records pkg-config-c "$work/record_c"

# A static engine lies in the executable, so the place of the recorder has to be named.
examples static -DZELTA_EXAMPLES_STATIC=ON
ZELTA_SERVICE_DIR=$(dirname "$(find "$work/tree" -name ZeltaCoreService)")
export ZELTA_SERVICE_DIR
records static "$work/examples/static/record"
records static-c "$work/examples/static/record_c"
test -s "$work/tree/share/man/man1/zelta-record.1"
test -s "$work/tree/share/man/man1/zelta-deliver.1"
test -s "$work/tree/share/man/man1/zelta-view.1"
# A worker looks for its recorder beside itself.
for program in zelta-worker zelta-fleet; do
  "$work/tree/bin/$program" --help >/dev/null
  test -s "$work/tree/share/man/man1/$program.1"
done
echo "installed tree works by CMake and pkg-config"
