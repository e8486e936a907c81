# Shared part of the Debian cross toolchains. The including file sets
# HLS_CROSS_TRIPLE (the GNU triple of Debian's cross compiler),
# HLS_CROSS_PROCESSOR, HLS_CROSS_QEMU (the qemu-user program for the target)
# and optionally HLS_CROSS_QEMU_OPTIONS.
#
# The sysroot is a directory holding the target's libraries and headers,
# unpacked from Debian's packages for that architecture (scripts/cross makes
# one). Give it as -DHLS_CROSS_SYSROOT=DIR or in the environment variable of
# the same name.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${HLS_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${HLS_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${HLS_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${HLS_CROSS_TRIPLE})
# GCC notes on ARM that passing some types changed ABI in GCC 7.1; everything
# here is built by one compiler, so the notes only bury real diagnostics.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT HLS_CROSS_SYSROOT AND DEFINED ENV{HLS_CROSS_SYSROOT})
  set(HLS_CROSS_SYSROOT "$ENV{HLS_CROSS_SYSROOT}")
endif()
if(NOT HLS_CROSS_SYSROOT OR NOT EXISTS "${HLS_CROSS_SYSROOT}/usr/lib/${HLS_CROSS_TRIPLE}")
  message(FATAL_ERROR "HLS_CROSS_SYSROOT must name a sysroot for ${HLS_CROSS_TRIPLE} (scripts/cross makes one)")
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HLS_CROSS_SYSROOT)

set(CMAKE_SYSROOT "${HLS_CROSS_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${HLS_CROSS_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The host's pkg-config, reading only the target's .pc files and prefixing
# the paths it prints with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${HLS_CROSS_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${HLS_CROSS_SYSROOT}/usr/lib/${HLS_CROSS_TRIPLE}/pkgconfig:${HLS_CROSS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Target programs (test discovery, ctest, the tests' child processes) run
# under qemu-user, which loads the target's dynamic loader and libraries from
# the sysroot.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(HLS_CROSS_QEMU_PROGRAM NAMES ${HLS_CROSS_QEMU} ${HLS_CROSS_QEMU}-static)
  if(HLS_CROSS_QEMU_PROGRAM)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${HLS_CROSS_QEMU_PROGRAM} ${HLS_CROSS_QEMU_OPTIONS} -L ${HLS_CROSS_SYSROOT})
  endif()
endif()
