#!/usr/bin/env bash
# exports_test.sh LIBRARY INCLUDE_DIRECTORY VERSION_SCRIPT: checks the names that the built library
# exports and those that it leaves to the host.
set -euo pipefail

names() {
  nm -D "$1" "$2" | awk '{ sub(/@.*/, "", $NF); print $NF }' | sort
}

declared=$(sed -nE 's/^VELMARIN_EXPORT [^([]*[ *]([A-Za-z0-9_]+)[([].*/\1/p' "$2"/velmarin/*.h | sort)
listed=$(sed -nE '/global:/,/local:/s/^ *([A-Za-z0-9_]+);$/\1/p' "$3" | sort)
left_to_host=$(printf '%s\n' __android_log_buf_print ioctl memcpy_s memset_s snprintf_s strcpy_s)

diff <(echo 31) <(wc -l <<<"$declared")
diff <(echo "$declared") <(names --defined-only "$1")
diff <(echo "$declared") <(echo "$listed")
diff <(echo "$left_to_host") <(names --undefined-only "$1" | grep -xF "$left_to_host")
! readelf -dW "$1" | grep 'NEEDED.*platform'
