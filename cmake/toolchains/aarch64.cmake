# 64-bit ARM (Debian arm64): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64.cmake
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ZORMESH_ARCH aarch64)
set(ZORMESH_TRIPLET aarch64-linux-gnu)
set(ZORMESH_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
