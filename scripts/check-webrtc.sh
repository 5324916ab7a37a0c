#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Lets a real Chromium publish to the recorder with none, 2 and 10 % of all UDP packets lost, and measures
# what was recorded and what it cost; then whether users' files lie on one timeline: those of two
# browsers with one microphone, and of two senders whose clocks differ. Tables on standard output, exit
# status 1 when a measurement is out of its bounds. Arguments: --only table|browsers|drift, --seconds N,
# --minutes N. Needs root, or the right to make namespaces.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."

scripts/install-deps.sh test browser sound >&2
cmake --preset release -DZELTA_BUILD_TESTS=ON >&2
cmake --build --preset release --target zelta-record ZeltaCoreService crowd_sender -- --quiet >&2
exec /usr/bin/python3 scripts/webrtc/check_webrtc.py "$@"
