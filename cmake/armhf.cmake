# Boards of Debian's armhf: ARMv7-A with hard floating point.
set(architecture armhf)
set(triplet arm-linux-gnueabihf)
set(loader ld-linux-armhf.so.3)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # notes about the interface of compilers before GCC 7.1
include(${CMAKE_CURRENT_LIST_DIR}/debianCross.cmake)
