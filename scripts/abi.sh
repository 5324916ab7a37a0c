#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares what applications are linked with against what the last release had: the library's symbols,
# and the types of the public headers. Exit status 1 and the differences where there are any.
#
#   scripts/abi.sh LIBRARY TYPES            compares; TYPES is libpublic_types.so of the same build
#   scripts/abi.sh --accept LIBRARY TYPES   what is there becomes what is compared with: docs/abi.md
#                                           says when that may be
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
accept=no
if [ "${1-}" = --accept ]; then
  accept=yes
  shift
fi
if [ $# -ne 2 ]; then
  echo "abi.sh: it takes the library and libpublic_types.so of a build, not $# arguments" >&2
  exit 2
fi
library=$(readlink -f "$1")
types=$(readlink -f "$2")
soname=$(objdump -p "$library" | awk '$1 == "SONAME" { print $2 }')
abi=${soname##*.so.}
known_symbols=$root/abi/libzelta-recording$abi.symbols
known_types=$root/abi/public-types$abi.xml
made=$(mktemp -d "${TMPDIR:-/tmp}/zelta-abi.XXXXXX")
trap 'rm -rf "$made"' EXIT
cd "$made" # where no debian/ lies

version=$(sed -n 's/^project(zelta_recording VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
gensymbols() {
  dpkg-gensymbols "-plibzelta-recording$abi" "-P$made" "-e$library" "$@"
}

if [ "$accept" = yes ]; then
  based_on=()
  [ -e "$known_symbols" ] && based_on=("-I$known_symbols")
  gensymbols "-v$version" "${based_on[@]}" "-O$made/symbols" -c0 -q >/dev/null
  # Older than the release itself, so that packages that are built on the way to it fit, too.
  sed -n "s/ $version\$/&~/; /^#MISSING/!p" symbols >"$known_symbols"
  abidw --headers-dir "$root/include" --no-show-locs --no-corpus-path --no-comp-dir-path "$types" |
    sed "s: path='[^']*'::" >"$known_types"
  exit 0
fi

for known in "$known_symbols" "$known_types"; do
  [ -e "$known" ] || { echo "abi.sh: $soname has no ${known#"$root"/}: scripts/abi.sh --accept makes it" >&2; exit 1; }
done
status=0
# Neither less nor more than what is known.
gensymbols "-v$version" "-I$known_symbols" "-O$made/symbols" -c4 || status=1
abidiff --harmless "$known_types" "$types" || status=1
[ "$status" -eq 0 ] ||
  echo "abi.sh: $soname isn't what it was: docs/abi.md says what may change, and how it is let in" >&2
exit "$status"
