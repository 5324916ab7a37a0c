#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing on a Debian 12: to build and record; with "test" what the tests need too;
# with "browser" what a browser that publishes needs, and its tests; with "sound" what several browsers
# hear the same by;
# with "bench" what the benchmarks compare with and draw by; with "fuzz" what the fuzzers are built
# with; with "mutate" what scripts/mutate.sh builds with; with "lint" what CI's checks need too; with
# "crowd" what scripts/check-crowd.sh encrypts with; with "deliver" what scripts/check-deliver.sh runs
# and cuts; with "fleet" what scripts/check-fleet.sh does; with "package" what scripts/check-packages.sh does,
# with "image" what it makes images with, too; with "docs" what scripts/docs.sh makes the site with; and with
# "python" or "node" what the package for Python or for Node.js is built with.
#
# "test" brings nginx, an SSH server and a NATS server, which Debian starts where systemd runs: they
# listen on ports 80, 22 and 4222 until `systemctl disable --now nginx ssh nats-server`. The tests start
# their own, on the loopback.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config git ca-certificates
  libjsoncpp-dev libcli11-dev prometheus-cpp-dev libsrtp2-dev libusrsctp-dev libopus-dev libssl-dev zlib1g-dev libsoup-3.0-dev
  glib-networking libcurl4-openssl-dev libnats-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  gstreamer1.0-plugins-ugly gstreamer1.0-libav
  libavformat-dev libavcodec-dev libavfilter-dev libavutil-dev libswscale-dev libswresample-dev libpango1.0-dev fonts-dejavu-core
  ffmpeg gstreamer1.0-tools python3 procps
)
for want in "$@"; do
  case "$want" in
    test) packages+=(openjdk-17-jdk-headless abigail-tools dpkg-dev libgtest-dev python3-jsonschema procps nginx-light openssh-server age nats-server openssl fish zsh curl) ;;
    browser) packages+=(chromium-headless-shell python3-websocket nftables iproute2 janus) ;;
    sound) packages+=(pulseaudio pulseaudio-utils) ;;
    deliver)
      packages+=(nginx-light openssh-server age iproute2 nftables nodejs)
      # Other packages of Node.js than Debian's bring it along.
      command -v npm >/dev/null || packages+=(npm) ;;
    fleet) packages+=(nats-server iproute2 nftables) ;;
    bench) packages+=(libzmq3-dev gnuplot-nox nats-server) ;;
    fuzz) packages+=(clang-14 libclang-rt-14-dev llvm-14) ;;
    mutate) packages+=(ccache lld util-linux) ;;
    package) packages+=(openjdk-17-jdk-headless abigail-tools dpkg-dev lintian debootstrap util-linux) ;;
    python) packages+=(python3-dev python3-cffi python3-numpy) ;;
    node)
      packages+=(nodejs)
      # Other packages of Node.js than Debian's bring the headers along.
      [ -e /usr/include/node/node_api.h ] || packages+=(libnode-dev) ;;
    image) packages+=(podman buildah runc) ;;
    docs) packages+=(mkdocs mkdocs-material doxygen) ;;
    lint) packages+=(clang-14 clang-format-14 clang-tidy-14 clang-tools-14 mypy python3-numpy) ;;
    *) echo "install-deps.sh: unknown set \"$want\": it should be test, browser, sound, deliver, fleet, bench, fuzz, mutate, package, python, node, image, docs or lint" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
[ "${#missing[@]}" -eq 0 ] && exit 0

echo "installing ${missing[*]}"
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
# How much it is, as nothing is seen of it for minutes. It says no to itself, which is a failure to apt.
"${as_root[@]}" env LC_ALL=C apt-get install --assume-no --no-install-recommends "${missing[@]}" 2>/dev/null |
  grep -E '^([0-9]+ upgraded|Need to get|After this operation)' || true
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
