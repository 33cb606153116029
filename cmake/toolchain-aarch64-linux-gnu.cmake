# Cross build for the device's architecture (64-bit Arm) with Debian's cross
# compiler and the arm64 builds of the dependencies (multiarch, installed by
# scripts/install-deps.sh). Programs built here run under qemu-user, which is
# also how test discovery and ctest start them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Multiarch: the arm64 libraries live in /usr/lib/aarch64-linux-gnu beside the
# host's, and their headers in /usr/include (arch-specific ones below
# /usr/include/aarch64-linux-gnu, which the cross compiler searches itself).
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# pkg-config must read the arm64 .pc files only, or a host library's flags
# would slip into the link.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
# No -L prefix: the programs load with the multiarch loader of libc6:arm64,
# the same build as the libc.so.6 they find. /usr/aarch64-linux-gnu holds the
# cross toolchain's older glibc, whose loader hangs with that libc.so.6 in the
# first pthread_create (docs/PLATFORM.md, "arm64").
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64-static)
# The platform's libraries need others of their own (libbacktrace needs 7z.so)
# that the cross linker finds only where the arm64 loader will.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,/usr/lib/aarch64-linux-gnu")
