# Cross build for 64-bit Arm boards on an x86-64 Debian machine: Debian's cross compilers
# (crossbuild-essential-arm64) and the arm64 builds of the dependencies unpacked into a
# root of their own (ORVA_AARCH64_SYSROOT; scripts/test_aarch64.sh makes it). The programs
# built here run under qemu-aarch64 with that root as the library prefix.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

if(NOT ORVA_AARCH64_SYSROOT AND DEFINED ENV{ORVA_AARCH64_SYSROOT})
  set(ORVA_AARCH64_SYSROOT $ENV{ORVA_AARCH64_SYSROOT})
endif()
if(NOT ORVA_AARCH64_SYSROOT OR NOT EXISTS ${ORVA_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu)
  message(FATAL_ERROR "ORVA_AARCH64_SYSROOT must name the root of the arm64 packages "
                      "(scripts/test_aarch64.sh makes it)")
endif()
# try_compile projects see the same root
set(ENV{ORVA_AARCH64_SYSROOT} ${ORVA_AARCH64_SYSROOT})
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVA_AARCH64_SYSROOT)

# Libraries, headers and package files from the root only; programs from this machine.
set(CMAKE_FIND_ROOT_PATH ${ORVA_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config reads the root's package files only (no host library leaks into the build).
set(ENV{PKG_CONFIG_LIBDIR} "${ORVA_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${ORVA_AARCH64_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ORVA_AARCH64_SYSROOT}")
# The libraries the dependencies load in turn are found in the root at link time.
set(_orva_lib ${ORVA_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu)
set(_orva_rpath_link "-Wl,-rpath-link,${_orva_lib}:${ORVA_AARCH64_SYSROOT}/lib/aarch64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_orva_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_orva_rpath_link}")

# Test discovery, the tests and the tests that start the orva program run through qemu.
find_program(ORVA_QEMU_AARCH64 qemu-aarch64)
if(ORVA_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVA_QEMU_AARCH64} -L ${ORVA_AARCH64_SYSROOT})
endif()
