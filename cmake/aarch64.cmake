# Cross build for 64-bit Arm Linux with Debian's packages: g++-aarch64-linux-gnu; libssl-dev,
# libgtest-dev and libstdc++6 of architecture arm64. Programs that the build runs, including the
# tests, run under user-mode emulation (qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# The emulator uses the C library of the arm64 packages, as libcrypto does, not the one in the
# compiler's own directory, whose loader does not match the packages' C library.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# The build machine's libraries are installed beside the target's; pkg-config must not offer them.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
