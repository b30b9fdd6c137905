#!/usr/bin/env bash
# The memory image of each library fits pages of 16 KiB: every load segment is aligned to one, and
# what becomes read-only after relocation ends with one, so that no page is half read-only.
#
#     segments_test.sh LIBRARY...
set -euo pipefail

readonly PAGE=$((16 * 1024))

[ $# -gt 0 ] || { echo "no library given" >&2 && exit 2; }
command -v readelf >/dev/null || { echo "cannot run here: there is no readelf" && exit 77; }

faults=0
fault() {
  echo "$*" >&2
  faults=$((faults + 1))
}

for library in "$@"; do
  segments=0
  # Columns: type, offset, address, physical address, size in the file, size in memory, flags (one
  # or more words), alignment.
  while read -r type offset address _ _ memory_size rest; do
    case $type in
      LOAD)
        segments=$((segments + 1))
        ((${rest##* } >= PAGE && offset % PAGE == address % PAGE)) ||
          fault "$library: load segment at $address is aligned to ${rest##* }"
        ;;
      GNU_RELRO)
        (((address + memory_size) % PAGE == 0)) ||
          fault "$library: the read-only part at $address ends within a page"
        ;;
    esac
  done < <(readelf --program-headers --wide "$library")
  [ "$segments" -ge 2 ] || fault "$library: $segments load segments"
done
[ "$faults" -eq 0 ]
