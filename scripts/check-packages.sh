#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages, has lintian read them, installs them by apt into a Debian 12 of its own
# (chroot), records, delivers and builds against them there, purges them and looks what is left.
# A table on standard output, exit status 1 when something in it failed. Needs root, and the mirror of
# this machine's apt. Argument: the folder in which the bare Debian is kept for the next time, and the
# other one while it is used; build/package-check unless given.
#
# Nothing is installed here and no service is started. /proc is all that is mounted, in namespaces
# (mounts and processes) that end with each command: outside of them nothing ever lies in the chroot.
# shellcheck disable=SC2317  # the checks are called by row
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1  # nothing is written beside the sources
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "check-packages.sh: it makes a chroot, and should be run by root" >&2; exit 2; }
[ $# -le 1 ] || { echo "check-packages.sh: it takes one folder, or none" >&2; exit 2; }
work=${1:-build/package-check}
mkdir -p "$work"
work=$(cd "$work" && pwd)
root=$work/root
suite=bookworm
packages=build/package/packages
own=(zelta-fleet zelta-recorder python3-zelta-recording node-zelta-recording libzelta-recording-java
  libzelta-recording-jni 'libzelta-recording[0-9]*')
failed=0

scripts/install-deps.sh package python node docs >&2
cmake --preset package >&2
# Of another version, if any.
rm -rf "$packages"
cmake --build --preset package --target all package -- --quiet >&2

# row NAME COMMAND...: a line of the table; what a command says that failed goes to standard error.
row() {
  local name=$1 status
  shift
  # Not in an "if", where a step that fails would not end the steps.
  set +e
  (set -e; "$@") >"$work/said" 2>&1
  status=$?
  set -e
  if [ "$status" -eq 0 ]; then
    printf '%-58s ok\n' "$name"
  else
    printf '%-58s FAILED\n' "$name"
    tail -n 30 "$work/said" >&2
    failed=1
  fi
}

# A command in the chroot, where it sees itself and its own processes alone, which end with it.
inside() {
  # shellcheck disable=SC2016
  unshare --mount --propagation private --pid --fork --kill-child -- \
    sh -c 'mount -t proc proc "$0/proc" && exec chroot "$0" "$@"' "$root" \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} "$@"
}

remove_root() {
  [ -e "$root" ] || return 0
  if grep -qF " $root" /proc/self/mountinfo; then
    echo "check-packages.sh: something is mounted in $root, which stays as it is" >&2
    return 1
  fi
  rm -rf --one-file-system "$root"
}

# shellcheck disable=SC2016
sources() { # URI and release of each Debian archive that this machine's apt knows
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    awk -v suite="$suite" '$3 == "main" && index($2, suite) == 1 { print $1, $2 }' | sort -u
}

make_root() {
  local mirror base=$work/base-$suite.tar
  remove_root
  mirror=$(sources | awk -v suite="$suite" '$2 == suite { print $1; exit }')
  if [ ! -s "$base" ]; then
    mkdir -p "$root"
    unshare --mount --propagation private -- \
      debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$work/debootstrap.log"
    tar --one-file-system -C "$root" -cf "$base.part" .
    mv "$base.part" "$base"
    remove_root
  fi
  mkdir -p "$root" "$work/archives"
  tar -C "$root" -xpf "$base"
  sources | sed 's/^/deb /; s/$/ main/' >"$root/etc/apt/sources.list"
  # Packages that this brings along start nothing.
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
  find "$work/archives" -name '*.deb' -exec cp -t "$root/var/cache/apt/archives" {} +
  mkdir "$root/packages"
  cp "$packages"/*.deb "$root/packages"
  inside apt-get update -qq
}

apt_get() {
  inside apt-get -y -qq --no-install-recommends -o Dpkg::Use-Pty=0 \
    -o Dpkg::Options::=--force-unsafe-io "$@"
}

# What packages of ours ask for, all but each other.
others() {
  local deb
  for deb in "$@"; do dpkg-deb -f "$deb" Depends; done | tr ',' '\n' | sed 's/^ *//' |
    grep -vE '^(lib)?zelta-' | sort -u | paste -sd, -
}

# Names of all files, and sums of those of /etc, without what apt and dpkg note down.
snapshot() {
  (
    cd "$root"
    find . -xdev \( -path ./proc -o -path ./packages -o -path ./var/lib/dpkg -o -path ./var/lib/apt -o \
      -path ./var/cache/apt -o -path ./var/log -o -path ./var/cache/ldconfig -o \
      -path ./etc/ld.so.cache \) -prune -o -print
    find etc -xdev -type f ! -path etc/ld.so.cache -exec sha256sum {} +
  ) | sort
}

# A user's record in passwd, its group, and the copies of before are left on purpose: files of theirs may be
# somewhere.
nothing_left() {
  local left
  left=$(diff "$1" "$2" | grep '^[<>]' |
    grep -vE ' (\./)?etc/(passwd|group|shadow|gshadow|subuid|subgid)-?$| ./etc/.pwd.lock$') || true
  [ -z "$left" ] || { printf '%s\n' "$left"; return 1; }
}

no_search_path() { # no RUNPATH in any file of any package
  local deb found
  for deb in "$packages"/*.deb; do
    rm -rf "$work/unpacked"
    dpkg-deb -x "$deb" "$work/unpacked"
    found=$(find "$work/unpacked" -type f -exec sh -c 'readelf -d "$1" 2>/dev/null | grep -qE "R(UN)?PATH" && echo "$1"' \
      sh {} \;)
    [ -z "$found" ] || { echo "$found"; return 1; }
  done
}

symbols_fit() { # each program's build id is among the debug packages' files
  local deb id
  rm -rf "$work/unpacked" "$work/symbols"
  for deb in "$packages"/*.deb; do dpkg-deb -x "$deb" "$work/unpacked"; done
  for deb in "$packages"/*.ddeb; do dpkg-deb -x "$deb" "$work/symbols"; done
  while read -r id; do
    [ -s "$work/symbols/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" ] || { echo "no symbols of $id"; return 1; }
  done < <(find "$work/unpacked/usr" -type f \( -perm -u+x -o -name '*.so.*' \) -exec readelf -n {} + 2>/dev/null |
    awk '/Build ID/ { print $3 }')
}

documents_link() { tests/docs/links_test.py && scripts/docs.sh --into "$work/site"; }

# The library of the package, and what a compiler makes of the headers, against what the last release had.
abi_fits() {
  rm -rf "$work/unpacked"
  dpkg-deb -x "$(ls "$packages"/libzelta-recording[0-9]*.deb)" "$work/unpacked"
  g++ -std=c++17 -g -femit-class-debug-always -shared -fPIC -Iinclude -Wl,-soname,libpublic_types.so \
    tests/abi/public_types.cpp -o "$work/libpublic_types.so"
  scripts/abi.sh "$(find "$work/unpacked" -type f -name 'libzelta_recording.so.*')" "$work/libpublic_types.so"
}

# Errors fail; a warning has to stand in packaging/debian/known-tags, with why it is there.
lintian_says() {
  local said unknown
  said=$(lintian --allow-root --tag-display-limit 0 "$packages"/*.deb "$packages"/*.ddeb) || true
  printf '%s\n' "$said" >"$work/lintian.txt"
  unknown=$(printf '%s\n' "$said" | grep '^[EW]:' |
    grep -vF -f <(awk '/^[a-z]/ { print " " $1 }' packaging/debian/known-tags) || true)
  [ -z "$unknown" ] || { printf '%s\n' "$unknown"; return 1; }
}

as_zelta() { inside runuser -u zelta -- env HOME=/tmp/check "$@"; }

records() {
  inside install -d -o zelta -g zelta /tmp/check /tmp/check/recordings /tmp/check/archive
  as_zelta timeout 60 zelta-record meeting --server test:users=1 --duration 3 \
    --record-file-root-dir /tmp/check/recordings
  [ -n "$(find "$root/tmp/check/recordings" -name '*.mp4' -size +10k)" ]
}

recorded() { (cd "$root" && find tmp/check/recordings -name recording.json -printf '%h'); }

# The recorder tells each element that it hasn't got, with its package: here those of -ugly, which isn't
# installed, and no others.
finds_all_plugins() {
  grep 'gstreamer1\.0-' "$root/$folder/recording_engine.log" >"$work/missing"
  grep -q plugins-ugly "$work/missing" && ! grep -v plugins-ugly "$work/missing"
}

lays() { as_zelta timeout 60 zelta-lay "/$folder" --names -o /tmp/check/film.mp4 && [ -s "$root/tmp/check/film.mp4" ]; }

exports() { as_zelta zelta-view --export "/$folder" && [ -s "$root/$folder/index.html" ]; }

delivers() {
  echo '{"targets": [{"name": "archive", "type": "folder", "path": "/tmp/check/archive"}]}' >"$root/tmp/check/delivery.json"
  as_zelta timeout 60 zelta-deliver --settings /tmp/check/delivery.json "/$folder" &&
    [ -n "$(find "$root/tmp/check/archive" -name recording.json)" ]
}

# By the examples of the package; the first is one to stop by Ctrl-C, and ends in order then. In the foreground,
# or it gets a second one, which interrupts that.
python_records() {
  local examples=/usr/share/doc/python3-zelta-recording/examples
  inside install -d -o zelta -g zelta /tmp/check/python
  echo '{"Channel_Server": "test:users=1"}' >"$root/tmp/check/python/server.json"
  as_zelta sh -ec "cd /tmp/check/python
    timeout --foreground --preserve-status --signal INT 20 python3 $examples/record.py server.json
    timeout 60 python3 $examples/frames.py server.json"
  [ -n "$(find "$root/tmp/check/python" -name '*.mp4' -size +10k)" ]
}

# In a folder of its own, as import looks in node_modules alone.
node_records() {
  local examples=/usr/share/doc/node-zelta-recording/examples
  inside install -d -o zelta -g zelta /tmp/check/node
  echo '{"Channel_Server": "test:users=1"}' >"$root/tmp/check/node/server.json"
  as_zelta sh -ec "cd /tmp/check/node
    mkdir node_modules && ln -s /usr/lib/*/nodejs/zelta-recording node_modules/ && cp $examples/*.mjs .
    node -e 'require(\"zelta-recording\")'
    timeout 60 node record.mjs server.json
    timeout 60 node frames.mjs server.json
    timeout 60 node layout.mjs server.json 3"
  [ -n "$(find "$root/tmp/check/node" -name '*.mp4' -size +10k)" ]
}

tells_versions() {
  local tool
  for tool in zelta-record zelta-deliver zelta-lay zelta-view zelta-worker zelta-fleet; do
    inside "$tool" --version
  done
}

# The examples' own project, as who installed -dev finds it; a copy, as that folder is the package's.
builds_examples() {
  cp -r "$root/usr/share/doc/libzelta-recording-dev/examples" "$root/tmp/consumer"
  # README's settings.
  echo '{"Channel_Server": "test:users=2"}' >"$root/tmp/consumer/server.json"
  inside sh -ec "cmake -S /tmp/consumer -B /tmp/consumer/build && cmake --build /tmp/consumer/build"
}

runs_example() { # NAME: in a folder of its own
  inside sh -ec "mkdir /tmp/consumer/by-$1; cd /tmp/consumer/by-$1; HOME=/tmp/consumer timeout 60 ../build/$1 ../server.json"
}

# NAME ARGUMENT...: one for Java as its source stands, which java compiles and runs.
runs_java() {
  # shellcheck disable=SC2016
  inside sh -ec 'mkdir "/tmp/consumer/java-$1"; cd "/tmp/consumer/java-$1"; name=$1; shift
    HOME=/tmp/consumer timeout 60 java -XX:-UsePerfData -cp /usr/share/java/zelta-recording.jar \
      "/usr/share/doc/libzelta-recording-java/examples/$name.java" ../server.json "$@"' sh "$@"
}

builds_static() {
  inside sh -ec "cmake -S /tmp/consumer -B /tmp/consumer/static -DZELTA_EXAMPLES_STATIC=ON && cmake --build /tmp/consumer/static"
}

builds_by_pkg_config() {
  # shellcheck disable=SC2016
  # Nothing but the library itself: its header and it are where the compiler looks by itself.
  inside sh -ec 'flags=$(pkg-config --cflags --libs zelta_recording); echo "$flags"
    test "$(echo $flags)" = -lzelta_recording
    c++ -std=c++17 /tmp/consumer/record/main.cpp -o /tmp/consumer/recorder $flags
    mkdir /tmp/consumer/by-pkg-config; cd /tmp/consumer/by-pkg-config; HOME=/tmp/consumer timeout 60 ../recorder ../server.json'
}

# The bare Debian stands for the base of the image, so that no registry is asked. Fails where podman is missing
# or has no right to run anything.
image_base() {
  tar --one-file-system -C "$root" --exclude=./packages --exclude='./var/cache/apt/archives/*.deb' -c . |
    podman import - zelta-check-base
  podman run --rm --network none zelta-check-base true
}

builds_image() {
  podman build --network host --build-arg BASE=zelta-check-base -f packaging/image/Containerfile --target "$1" \
    -t "zelta-check-$1" "$packages"
}

# As docs/image.md has it: whoever, on a root that is read-only, with a folder of users' files.
image_records() {
  rm -rf "$work/recordings"
  install -d -o 1234 -g 1234 "$work/recordings"
  contained() {
    podman run --rm --read-only --read-only-tmpfs=false --tmpfs /tmp --cap-drop ALL --network none --user 1234:1234 \
      -v "$work/recordings:/var/lib/zelta/recordings" "$@"
  }
  contained zelta-check-recorder first --server test:users=1 --duration 2
  install -D "$(find "$work/recordings" -name '*.mp4')" "$work/recordings/channels/meeting/1.mp4"
  contained zelta-check-recorder meeting --server dir:channels --duration 1
  [ -n "$(find "$work/recordings" -path '*meeting_*' -name '*.mp4' -size +10k)" ]
}

image_works() { podman run --rm --read-only --network none zelta-check-worker --version; }

remove_images() {
  command -v podman >/dev/null || return 0
  podman rmi -f zelta-check-recorder zelta-check-worker zelta-check-base >/dev/null 2>&1 || true
}

trap 'remove_images; remove_root' EXIT
printf '%s\n' "$(cd "$packages" && ls -- *.deb *.ddeb)"
row "lintian: no errors, no warning that isn't known" lintian_says
row "no RUNPATH" no_search_path
row "debug packages fit the programs" symbols_fit
row "links of the documents, and the site of them" documents_link
row "symbols and types are the last release's" abi_fits
row "Debian $suite" make_root
if image_base >"$work/said" 2>&1; then
  row "an image that records" builds_image recorder
  row "an image of a worker" builds_image worker
  row "it records read-only, by a user of any number" image_records
  row "the worker's starts" image_works
else
  printf '%-58s %s\n' "images" "skipped: podman is missing, or can't run here"
  tail -n 3 "$work/said" >&2
fi

mapfile -t running < <(find "$packages" -name '*.deb' ! -name '*-dev_*' -printf '%f\n')
row "what they depend on is there" apt_get satisfy "$(others "${running[@]/#/$packages/}"), systemd-standalone-sysusers"
snapshot >"$work/before"
row "installed by apt" apt_get install "${running[@]/#//packages/}"
row "the user zelta is there" inside id zelta
row "/etc/zelta is its alone" test "$(stat -c %a "$root/etc/zelta")" = 750
row "all tools tell their version" tells_versions
row "zelta-record records 3 s" records
folder=$(recorded)
row "all elements of GStreamer but -ugly's are there" finds_all_plugins
row "zelta-lay makes a film of it" lays
row "zelta-view makes a page of it" exports
row "zelta-deliver delivers it" delivers
row "the examples in Python record, and see frames" python_records
row "the examples for Node.js record, and see frames" node_records
rm -rf --one-file-system "$root/tmp/check"
row "purged" apt_get purge "${own[@]}"
snapshot >"$work/after"
row "nothing is left but the user" nothing_left "$work/before" "$work/after"

row "a compiler, and what -dev depends on" apt_get satisfy \
  "g++, make, cmake, pkg-config, default-jdk-headless, $(others "$packages"/*-dev_*.deb)"
snapshot >"$work/before"
mapfile -t all < <(find "$packages" -name '*.deb' -printf '%f\n')
row "installed by apt, with -dev" apt_get install "${all[@]/#//packages/}"
row "the examples of -dev by CMake" builds_examples
row "its record records" runs_example record
row "its record_c records, in C" runs_example record_c
row "its frames hears and sees" runs_example frames
row "a program by pkg-config, which records" builds_by_pkg_config
row "its Record.java records" runs_java Record
row "its Frames.java hears and sees" runs_java Frames
row "its GridLayout.java arranges a mix" runs_java GridLayout 4
row "the examples of -dev, linked statically" builds_static
rm -rf --one-file-system "$root/tmp/consumer"
row "purged, with -dev" apt_get purge libzelta-recording-dev "${own[@]}"
snapshot >"$work/after"
row "nothing is left" nothing_left "$work/before" "$work/after"
find "$root/var/cache/apt/archives" -maxdepth 1 -name '*.deb' -exec cp -n -t "$work/archives" {} +
printf '%s\n' "" "What lintian says, and why it stays (packaging/debian/known-tags):"
grep '^W:' "$work/lintian.txt" | awk '{ print $3 }' | sort | uniq -c | while read -r count tag; do
  printf '%4d %s: %s\n' "$count" "$tag" "$(sed -n "s/^$tag //p" packaging/debian/known-tags)"
done
exit "$failed"
