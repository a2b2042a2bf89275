# 32-bit ARM, the processor that the daemon is made for.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CROSS_ARCHITECTURE armhf)
set(CROSS_TRIPLET arm-linux-gnueabihf)
set(CROSS_EMULATOR qemu-arm-static)
# Nothing is linked with what a compiler before gcc 7 made.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
