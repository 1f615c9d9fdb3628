# Boards of Debian's arm64: ARMv8-A.
set(architecture arm64)
set(triplet aarch64-linux-gnu)
set(loader ld-linux-aarch64.so.1)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debianCross.cmake)
