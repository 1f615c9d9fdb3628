# The board: Debian's armhf (ARMv7-A, hard floating point) against the sysroot of
# scripts/armhf-sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT})
  message(FATAL_ERROR "${CMAKE_SYSROOT} is missing; scripts/armhf-sysroot makes it")
endif()

set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_STRIP arm-linux-gnueabihf-strip)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # notes about the interface of compilers before GCC 7.1

# Libraries of the board and programs of this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# The tests run in an emulator of the board's processor on this machine's kernel. The loader gets
# the libraries' folders, because the emulator's own option for a sysroot (-L) would redirect the
# tests' files and folders, too.
set(libraries ${CMAKE_SYSROOT}/lib/arm-linux-gnueabihf)
string(APPEND libraries :${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm-static ${CMAKE_SYSROOT}/lib/ld-linux-armhf.so.3 --library-path ${libraries})
