#!/usr/bin/env bash
# exports_test.sh LIBRARY INCLUDE_DIRECTORY VERSION_SCRIPT
# What the built library shows to the dynamic linker: the names it offers, the names it leaves to
# the host and the libraries it names.
set -euo pipefail

library=$1
headers=$2
version_script=$3
status=0

# expect WHAT EXPECTED ACTUAL: both are lists, one entry a line.
expect() {
  local difference
  if difference=$(diff <(printf '%s\n' "$2") <(printf '%s\n' "$3")); then
    printf 'ok: %s\n' "$1"
  else
    printf 'FAILED: %s (< expected, > found)\n%s\n' "$1" "$difference"
    status=1
  fi
}

names() {
  awk '{ sub(/@.*/, "", $NF); print $NF }' | sort
}

declared=$(sed -nE 's/^VELMARIN_EXPORT [^([]*[ *]([A-Za-z0-9_]+)[([].*/\1/p' "$headers"/velmarin/*.h | sort)
listed=$(sed -nE '/global:/,/local:/s/^ *([A-Za-z0-9_]+);$/\1/p' "$version_script" | sort)
exported=$(nm -D --defined-only "$library" | names)
undefined=$(nm -D --undefined-only "$library" | names)
needed=$(readelf -dW "$library" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p')
left_to_host='__android_log_buf_print
ioctl
memcpy_s
memset_s
snprintf_s
strcpy_s'

expect 'the library exports 31 names' 31 "$(wc -l <<<"$exported")"
expect 'it exports what the headers declare' "$declared" "$exported"
expect 'the version script lists the same names' "$declared" "$listed"
expect 'it leaves these names to the host' "$left_to_host" \
  "$(grep -xF "$left_to_host" <<<"$undefined")"
expect 'it does not name the platform library' '' "$(grep platform <<<"$needed" || true)"
exit "$status"
