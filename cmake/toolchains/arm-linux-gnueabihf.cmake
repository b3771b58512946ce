# Cross build for 32-bit ARM Linux (armhf) with Debian's cross compiler and the armhf
# multiarch packages that `scripts/install-deps.sh --arm` installs:
#   cmake -S . -B build-arm -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
# CTest then runs every test program under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(NK_CROSS_TRIPLET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${NK_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${NK_CROSS_TRIPLET}-g++)
# 64-bit file offsets and time_t come from the project itself for every 32-bit target.
# -Wno-psabi: GCC's note that the ARM calling convention of some STL types changed in GCC 7.1
# concerns mixing objects built before and after that release, which never happens here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Debian multiarch: armhf libraries and CMake packages live in /usr/lib/arm-linux-gnueabihf,
# architecture-independent headers and packages (nlohmann-json, asio, CLI11) in /usr/include and
# /usr/share. The root "/" is searched with the multiarch directory first; the host's own
# libraries sit in /usr/lib/x86_64-linux-gnu and are never looked at.
set(CMAKE_LIBRARY_ARCHITECTURE ${NK_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${NK_CROSS_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (FindOpenSSL falls back to it) must see the armhf .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${NK_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Without -L: the armhf loader and C library come as a matched pair from libc6:armhf (pulled in
# by libssl3:armhf), whereas the cross toolchain's copy in /usr/arm-linux-gnueabihf is an older
# build that must not be mixed with the multiarch libc.so.6.
find_program(NK_QEMU_ARM qemu-arm)
if(NK_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${NK_QEMU_ARM})
endif()
