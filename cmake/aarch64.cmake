# Cross build for 64-bit Arm Linux with Debian's packages: g++-aarch64-linux-gnu; libssl-dev,
# libgtest-dev and libstdc++6 of architecture arm64. Programs of the build, the tests among them,
# run in user-mode emulation (qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# The emulator takes the C library of the arm64 packages, as libcrypto does. It is not given the
# compiler's own directory: its loader and the packages' C library do not fit each other.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# Libraries of the build machine lie beside those of the target; pkg-config must not offer them.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
