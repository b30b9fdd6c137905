# shellcheck shell=bash
# Shared by the scripts that test on 64-bit Arm. Source it after `lib.sh`.

# Both architectures of a package must have the same version, so the native one is upgraded.
install_both_architectures() {
  local missing=() name
  for name in "$@"; do
    is_installed "$name:arm64" || missing+=("$name" "$name:arm64")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  can_be_root || cannot_run "install these packages first: ${missing[*]}"
  say "installing: ${missing[*]}"
  as_root dpkg --add-architecture arm64
  as_root apt-get -q -q update
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -q -y --no-install-recommends install "${missing[@]}"
}

# build_for_arm PACKAGE...: installs what the build and the caller need, and builds. Ends the script
# if the machine cannot do it.
build_for_arm() {
  command -v dpkg >/dev/null || cannot_run 'the cross build is made of Debian packages'
  [ "$(dpkg --print-architecture)" != arm64 ] || cannot_run 'this machine is 64-bit Arm itself'
  # Configuring and listing the tests run built programs, in qemu-user.
  install_packages cmake ninja-build pkg-config libcli11-dev libutfcpp-dev nlohmann-json3-dev python3 \
    g++-aarch64-linux-gnu qemu-user "$@"
  install_both_architectures libc6 libgcc-s1 libstdc++6 libssl3 libssl-dev libgtest-dev libgmock-dev
  build aarch64
}
