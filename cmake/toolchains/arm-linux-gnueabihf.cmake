# 32-bit ARM processes (long and pointers are 32 bits): Debian's
# arm-linux-gnueabihf cross compiler, tests under qemu.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(VEKD_TRIPLET arm-linux-gnueabihf)
set(VEKD_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/CrossLinux.cmake)
# GCC notes, for every std::vector of 64-bit values, that GCC 7.1 changed how
# such arguments are passed; everything here is built by one compiler.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
