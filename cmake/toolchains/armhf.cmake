# 32-bit ARM, hard-float (Debian armhf): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ZORMESH_ARCH armhf)
set(ZORMESH_TRIPLET arm-linux-gnueabihf)
set(ZORMESH_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
# GCC notes on every std::vector of 64-bit values that their argument passing changed in
# GCC 7.1; that matters only when linking with code built by an older compiler.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
