# arm64 handsets: Debian's aarch64-linux-gnu cross compiler, tests under qemu.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(VEKD_TRIPLET aarch64-linux-gnu)
set(VEKD_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/CrossLinux.cmake)
