# What the two ARM toolchain files share: the Debian cross compiler of ZORMESH_TRIPLET, the
# target's libraries from the multiarch directories, the target's OpenSSL from the private
# sysroot build-<arch>/sysroot when scripts/bootstrap put it there, and qemu-user to run the
# target's programs (tests included) on the build machine.
#
# qemu runs without -L: the target's C library is installed under its multiarch path, so
# the target's loader finds it, and a forked child that runs the host's /bin/sh (the
# daemon's shell lines) is still an ordinary host program.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ZORMESH_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZORMESH_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZORMESH_TRIPLET})
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZORMESH_QEMU})

# Programs of the build machine; libraries, headers and packages of the target only.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

if(NOT ZORMESH_SYSROOT)
  get_filename_component(ZORMESH_SYSROOT
    "${CMAKE_CURRENT_LIST_DIR}/../../build-${ZORMESH_ARCH}/sysroot" ABSOLUTE)
endif()
if(EXISTS "${ZORMESH_SYSROOT}/usr/include/openssl")
  # Searched before the multiarch root; the build records the library's directory as the
  # run path of every program, so qemu finds it there too.
  set(CMAKE_FIND_ROOT_PATH "${ZORMESH_SYSROOT}" /)
  set(OPENSSL_ROOT_DIR "${ZORMESH_SYSROOT}/usr")
  string(APPEND CMAKE_CXX_FLAGS_INIT
    " -isystem ${ZORMESH_SYSROOT}/usr/include/${ZORMESH_TRIPLET}")
  string(APPEND CMAKE_C_FLAGS_INIT
    " -isystem ${ZORMESH_SYSROOT}/usr/include/${ZORMESH_TRIPLET}")
else()
  set(CMAKE_FIND_ROOT_PATH /)
endif()
