# What the toolchain files of the cross builds share; each sets CMAKE_SYSTEM_PROCESSOR, CROSS_ARCHITECTURE
# (Debian's name), CROSS_TRIPLET and CROSS_EMULATOR first. Debian's cross compiler brings its own C and C++
# libraries; the few others lie in build/sysroot, where scripts/prepare-cross unpacks them, so that the host needs
# no foreign packages installed. Programs run under user-mode emulation, tests and what they start alike.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CROSS_TRIPLET}-g++)

get_filename_component(cross_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${CROSS_ARCHITECTURE} ABSOLUTE)
if(NOT EXISTS ${cross_sysroot}/stamp)
    message(FATAL_ERROR "There are no libraries for ${CROSS_ARCHITECTURE} yet: run scripts/prepare-cross ${CROSS_ARCHITECTURE}")
endif()
set(CMAKE_FIND_ROOT_PATH ${cross_sysroot} /usr/${CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CROSS_EMULATOR} -L /usr/${CROSS_TRIPLET})
