# What the toolchain files of all Debian architectures share: Debian's cross compiler, and the
# sysroot of scripts/sysroot.
set(CMAKE_SYSTEM_NAME Linux)
get_filename_component(CMAKE_SYSROOT
  ${CMAKE_CURRENT_LIST_DIR}/../build/${architecture}-sysroot ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT})
  message(FATAL_ERROR "${CMAKE_SYSROOT} is missing; scripts/sysroot ${architecture} makes it")
endif()

set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_STRIP ${triplet}-strip)

# Libraries of the board and programs of this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(libraryFolders ${CMAKE_SYSROOT}/lib/${triplet} ${CMAKE_SYSROOT}/usr/lib/${triplet})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# The tests run in an emulator of the board's processor on this machine's kernel. The loader gets
# the libraries' folders, because the emulator's own option for a sysroot (-L) would redirect the
# tests' files and folders, too.
list(JOIN libraryFolders ":" libraryPath)
list(APPEND CMAKE_CROSSCOMPILING_EMULATOR
  ${CMAKE_SYSROOT}/lib/${loader} --library-path ${libraryPath})

# For the package: its architecture, and where its dependencies are read from.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${libraryFolders})
