#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the documentation as a site, in build/site: the pages of docs/ by mkdocs, and those of the
# public headers by doxygen. With --serve it is served on 127.0.0.1, for its search, which pages that are
# opened from the disk don't have. --into FOLDER puts it elsewhere.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1
cd "$(dirname "$0")/.."
site=$PWD/build/site
serve=
while [ $# -gt 0 ]; do
  case $1 in
    --serve) serve=1 ;;
    --into) site=$(realpath -m "${2:?"docs.sh: --into needs a folder"}"); shift ;;
    *) echo "docs.sh: unknown argument \"$1\": it should be --serve or --into FOLDER" >&2; exit 2 ;;
  esac
  shift
done

scripts/install-deps.sh docs
mkdir -p build
mkdocs build --strict --site-dir "$site" >build/docs.log 2>&1 ||
  { grep -E 'WARNING|ERROR|Error|Aborted' build/docs.log >&2; exit 1; }
{ cat scripts/docs/Doxyfile; printf 'OUTPUT_DIRECTORY = "%s"\nHTML_OUTPUT = api\n' "$site"; } | doxygen -
echo "== ${site#"$PWD/"}/index.html"
if [ -n "$serve" ]; then
  exec python3 -m http.server --bind 127.0.0.1 --directory "$site" 8000
fi
