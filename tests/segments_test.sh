#!/usr/bin/env bash
# segments_test.sh LIBRARY...
# Checks that the memory image of each library suits pages of 16 KiB: every load segment is aligned
# to one, and the part that becomes read-only after relocation ends at a page boundary.
set -euo pipefail
command -v readelf >/dev/null || { echo "cannot run here: readelf is not installed" && exit 77; }

for library in "$@"; do
  segments=0
  # After the physical address: size in the file and in memory, flags (some words), alignment.
  while read -r type offset address _ _ memory_size rest; do
    case $type in
      LOAD) ((++segments, ${rest##* } >= 16384 && offset % 16384 == address % 16384)) ;;
      GNU_RELRO) (((address + memory_size) % 16384 == 0)) ;;
    esac || { echo "$library: the $type segment at $address does not fit" && exit 1; }
  done < <(readelf --program-headers --wide "$library")
  ((segments >= 2)) || { echo "$library: $segments load segments" && exit 1; }
done
