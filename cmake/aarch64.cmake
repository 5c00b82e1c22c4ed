# For 64-bit Arm on another machine. scripts/test-arm64 makes the system root and the emulator and
# names them: VLX_ARM64_ROOT and VLX_ARM64_EMULATOR.

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VLX_ARM64_ROOT VLX_ARM64_EMULATOR)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_SYSROOT ${VLX_ARM64_ROOT})
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Samples are compared bit by bit: no multiplication fused with an addition.
set(CMAKE_CXX_FLAGS_INIT -ffp-contract=off)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR}
    ${VLX_ARM64_ROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${VLX_ARM64_ROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VLX_ARM64_ROOT})
set(CMAKE_CROSSCOMPILING_EMULATOR ${VLX_ARM64_EMULATOR} -L ${VLX_ARM64_ROOT})
