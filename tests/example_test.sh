#!/usr/bin/env bash
# example_test.sh EXECUTABLE here|btrfs
# Runs the example host on a small tree, in a temporary directory or on a Btrfs image, where the
# files must share extents afterwards and one of them refuses. Ends with 77 when that place is not to
# be had.
set -euo pipefail

executable=$(realpath "$1")
place=$2
directory=$(mktemp -d "${TMPDIR:-/tmp}/velmarin-example-XXXXXX")
mkdir "$directory/tree" "$directory/state"

program=
clean_up() {
  cd /
  if [ -n "$program" ]; then
    kill "$program"
    wait "$program" || true
  fi
  ! mountpoint -q "$directory/tree" || umount "$directory/tree"
  rm -rf "$directory"
}
trap clean_up EXIT

failed() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

cannot_run() {
  printf 'not run: %s\n' "$*"
  exit 77
}

mount_btrfs() {
  PATH=$PATH:/usr/sbin:/sbin
  truncate -s 256M "$directory/image"
  mkfs.btrfs -q "$directory/image" >/dev/null && mount -o loop "$directory/image" "$directory/tree"
}

# Where the data of a file lies on the device.
extents() {
  filefrag -v "$directory/tree/$1" | awk '$1 ~ /^[0-9]+:$/ { print $4, $5 }'
}

run_host() {
  "$executable" "$directory/state" "$directory/tree"
}

has_user_attributes() {
  python3 -c 'import os, sys; os.setxattr(sys.argv[1], "user.probe", b"")' "$directory/tree" 2>&1
}

if [ "$place" = btrfs ]; then
  mount_btrfs || cannot_run 'no Btrfs can be mounted'
fi
has_user_attributes || cannot_run "no user attributes in $directory"

cd "$directory/tree"
head -c 300000 /dev/urandom >original
head -c 300000 /dev/urandom >different
cp --reflink=never original copy
cp --reflink=never original 'another copy'
head -c 60000 original >small
cp small 'small copy'
sha256sum ./* >"$directory/digests"
sync -f .

result=$(run_host)
[ "$result" = $'4 candidates, 4 read\n2 merged, 0 refused' ] || failed "first run: $result"
sha256sum --quiet --check "$directory/digests"
result=$(run_host)
[[ $result == '4 candidates, 0 read'* ]] || failed "the second run read files again: $result"

if [ "$place" = btrfs ]; then
  sync -f .
  [ -n "$(extents original)" ] || failed 'no extents found'
  for name in copy 'another copy'; do
    [ "$(extents "$name")" = "$(extents original)" ] || failed "$name has data of its own"
  done
  [ "$(extents different)" != "$(extents original)" ] || failed 'a different file was merged'

  # A program that is running cannot be opened for writing.
  cp "$(command -v sleep)" refusing
  head -c 300000 /dev/urandom >>refusing
  cp --reflink=never refusing welcome
  cp --reflink=never refusing 'also welcome'
  ./refusing 300 &
  program=$!
  until [ "$(readlink "/proc/$program/exe")" -ef refusing ]; do
    kill -0 "$program"
  done
  if result=$(run_host 2>&1); then
    failed "a refusal was not told: $result"
  fi
  [[ $result == *'/refusing: '* ]] || failed "another refusal: $result"
  sync -f .
  [ "$(extents welcome)" = "$(extents 'also welcome')" ] || failed 'a refused file held up others'
  [ "$(extents welcome)" != "$(extents refusing)" ] || failed 'a running program was merged'
fi
