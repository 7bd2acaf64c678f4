# Cross build for the BMC's 32-bit little-endian ARM (hard-float EABI) with
# Debian's arm-linux-gnueabihf toolchain.  Test programs run under qemu-user,
# with the target's libraries (libc, libstdc++, the dynamic loader) taken from
# the cross toolchain's sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(BRASK_TARGET_TRIPLE arm-linux-gnueabihf)
set(BRASK_TARGET_SYSROOT /usr/${BRASK_TARGET_TRIPLE})

set(CMAKE_C_COMPILER ${BRASK_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${BRASK_TARGET_TRIPLE}-g++)
# CMake derives CMAKE_READELF (arm-linux-gnueabihf-readelf), ar, ranlib, ...
# from the compiler's prefix; the exported-symbol test reads the library
# with that readelf.

# Libraries and headers come from the target's tree only; programs (the
# emulator, bash, pkg-config) from the host.
set(CMAKE_FIND_ROOT_PATH ${BRASK_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest starts every test program through this; the test sandbox starts the
# re-executed program through it as well.  An absolute path, because the
# sandbox's PATH is not the caller's.
find_program(BRASK_QEMU_ARM NAMES qemu-arm qemu-arm-static PATHS /usr/bin NO_CMAKE_FIND_ROOT_PATH)
if(NOT BRASK_QEMU_ARM)
  set(BRASK_QEMU_ARM /usr/bin/qemu-arm)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${BRASK_QEMU_ARM} -L ${BRASK_TARGET_SYSROOT})
