# A big-endian machine. Nobody runs a node on it: it shows that no protocol notices the byte order.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CROSS_ARCHITECTURE s390x)
set(CROSS_TRIPLET s390x-linux-gnu)
set(CROSS_EMULATOR qemu-s390x-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
