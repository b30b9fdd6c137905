#!/usr/bin/env bash
# example_test.sh EXECUTABLE here|btrfs
# Runs the example host on a small tree, in a temporary directory or on a Btrfs image, where the
# files must share extents afterwards. Ends with 77 when that place is not to be had.
set -euo pipefail

executable=$(realpath "$1")
place=$2
directory=$(mktemp -d "${TMPDIR:-/tmp}/velmarin-example-XXXXXX")
mkdir "$directory/tree" "$directory/state"
trap 'failed "line $LINENO: $BASH_COMMAND"' ERR

clean_up() {
  cd /
  ! mountpoint -q "$directory/tree" || umount "$directory/tree"
  rm -rf "$directory"
}
trap clean_up EXIT

failed() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

# Where the data of a file lies on the device.
extents() {
  filefrag -v "$1" | awk '$1 ~ /^[0-9]+:$/ { print $4, $5 }'
}

if [ "$place" = btrfs ]; then
  PATH=$PATH:/usr/sbin:/sbin
  truncate -s 256M "$directory/image"
  { mkfs.btrfs -q "$directory/image" && mount -o loop "$directory/image" "$directory/tree"; } ||
    exit 77
fi
cd "$directory/tree"
head -c 300000 /dev/urandom >original
head -c 300000 /dev/urandom >different
cp --reflink=never original copy
sha256sum ./* >"$directory/digests"

result=$("$executable" "$directory/state" .)
[ "$result" = $'3 candidates, 3 read\n1 merged, 0 refused' ] || failed "the first run: $result"
sha256sum --quiet --check "$directory/digests"
result=$("$executable" "$directory/state" .)
[[ $result == '3 candidates, 0 read'* ]] || failed "the second run read files again: $result"
[ "$place" = btrfs ] || exit 0

sync -f .
[[ $(extents original) == *[0-9]* && $(extents copy) == "$(extents original)" ]]
[ "$(extents different)" != "$(extents original)" ]
