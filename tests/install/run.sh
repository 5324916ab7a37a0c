#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build tree $1 below $2 and builds and runs a small program against it: by CMake's
# package, shared and static, and by pkg-config.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work/recordings"
cmake --install "$build" --prefix "$work/tree" >/dev/null
export ZELTA_CHANNEL_SERVER=test:users=1
# The recorder must be found in the installed tree, not by these.
unset ZELTA_SERVICE_DIR

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" >/dev/null
cmake --build "$work/cmake" -- --quiet
"$work/cmake/app_shared" "$work/recordings"

libdir=$(dirname "$(dirname "$(find "$work/tree" -name zelta_recording.pc)")")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$here/app.cpp" -o "$work/app" $(pkg-config --cflags --libs zelta_recording)
LD_LIBRARY_PATH="$libdir" "$work/app" "$work/recordings"

# A static engine lies in the executable, so the place of the recorder has to be named.
ZELTA_SERVICE_DIR=$(dirname "$(find "$work/tree" -name ZeltaCoreService)") \
  "$work/cmake/app_static" "$work/recordings"
test -s "$work/tree/share/man/man1/zelta-record.1"
echo "installed tree works by CMake and pkg-config"
