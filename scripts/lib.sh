# shellcheck shell=bash disable=SC2034
# Shared by the scripts. Source it after `set -euo pipefail`.

repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
velmarin=$repository/build/release/velmarin

build_packages=(g++ cmake ninja-build pkg-config libssl-dev libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libutfcpp-dev nlohmann-json3-dev)
test_packages=(btrfs-progs chromium chromium-driver dpkg-dev e2fsprogs lintian mandoc mount python3
  python3-selenium systemd util-linux-extra xfsprogs zsh)

say() {
  printf '%s\n' "$*"
}

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Ends a script, or a step of .ci/run, that this machine cannot run.
cannot_run() {
  say "cannot run here: $*"
  exit 77
}

can_be_root() {
  [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null
}

# Runs a command as root, through sudo if needed.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

# is_installed NAME[:ARCHITECTURE]: other architectures of a package may be installed too.
is_installed() {
  local architecture
  architecture=$(dpkg --print-architecture)
  [[ $1 != *:* ]] || architecture=${1#*:}
  dpkg-query --show --showformat='${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
    grep -Eqx "(all|$architecture) installed"
}

# install_packages NAME...: installs the Debian packages that are missing.
install_packages() {
  command -v dpkg-query >/dev/null || {
    say "not a Debian system; assuming that what these packages contain is installed: $*"
    return
  }
  local missing=() name
  for name in "$@"; do
    is_installed "$name" || missing+=("$name")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  say "installing: ${missing[*]}"
  can_be_root || fail "install these packages first: ${missing[*]}"
  as_root apt-get -q -q update
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -q -y --no-install-recommends install "${missing[@]}"
}

# build PRESET [OPTION]...: configures and builds it, in build/PRESET.
build() {
  (
    cd "$repository" || exit
    cmake --preset "$1"
    cmake --build --preset "$1" "${@:2}"
  )
}

# run_tests PRESET [CTEST OPTION]...: returns ctest's exit status.
run_tests() {
  (
    cd "$repository" || exit
    ctest --preset "$1" --parallel "$(nproc)" --no-tests=error "${@:2}"
  )
}

# Sanitizers reserve fixed address ranges, which address space randomization may already have used.
# Without randomization they are always free.
fixed_addresses() {
  if setarch "$(uname -m)" --addr-no-randomize true 2>/dev/null; then
    setarch "$(uname -m)" --addr-no-randomize "$@"
  else
    "$@"
  fi
}

# build_and_run PRESET PROGRAM [ARGUMENT]...: builds one program and runs it.
build_and_run() {
  export -f build
  export repository
  # shellcheck disable=SC2016
  fixed_addresses bash -euo pipefail -c \
    'build "$1" --target "$2"; exec "$repository/build/$1/$2" "${@:3}"' - "$@"
}

# Makes a temporary directory, in `workspace`, that is removed on every exit. Anything mounted on
# its directory `tree` is unmounted first, which also detaches the loop device.
make_workspace() {
  trap remove_workspace EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM HUP
  workspace=$(mktemp -d "${TMPDIR:-/tmp}/velmarin-XXXXXX")
  mkdir "$workspace/tree"
}

remove_workspace() {
  [ -n "${workspace-}" ] || return 0
  cd /
  ! mountpoint -q "$workspace/tree" || unmount_tree
  rm -rf "$workspace"
}

# A process that was just told to end may still be using it.
unmount_tree() {
  local attempt
  for ((attempt = 0; attempt < 50; attempt++)); do
    ! as_root umount "$workspace/tree" 2>/dev/null || return 0
    sleep 0.1
  done
  as_root umount --lazy "$workspace/tree"
}

# mount_image SIZE MKFS [OPTION]...: mounts a new file system on `tree` of the workspace. Fails if
# that is not possible.
mount_image() {
  can_be_root &&
    truncate -s "$1" "$workspace/image" &&
    "${@:2}" "$workspace/image" >/dev/null &&
    as_root mount -o loop "$workspace/image" "$workspace/tree" &&
    as_root chown "$(id -u)" "$workspace/tree"
}

mount_btrfs() {
  mount_image "$1" /sbin/mkfs.btrfs -q
}

# XFS needs at least 300M.
mount_xfs() {
  mount_image "$1" /sbin/mkfs.xfs -q -m reflink=1
}

# Unmounts the file system and mounts it again, so that what is read next comes from the image.
remount_image() {
  as_root umount "$workspace/tree"
  as_root mount -o loop "$workspace/image" "$workspace/tree"
}
