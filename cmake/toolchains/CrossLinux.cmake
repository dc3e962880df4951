# Shared part of the Debian cross toolchains: VEKD_TRIPLET and VEKD_QEMU are
# set by the file that includes this one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${VEKD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VEKD_TRIPLET}-g++)
# Libraries of the target come from Debian's multiarch directories
# (/usr/lib/<triplet>): the Android platform libraries, GoogleTest.
set(CMAKE_LIBRARY_ARCHITECTURE ${VEKD_TRIPLET})

# libbacktrace (needed by libutils) needs p7zip's 7z.so of the same
# architecture, which scripts/install-deps.sh unpacks here.
set(VEKD_CROSS_EXTRA /usr/local/lib/vekd-cross/${VEKD_TRIPLET})
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${VEKD_CROSS_EXTRA}")
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${VEKD_CROSS_EXTRA}")

# Tests and test discovery run the target's programs under qemu-user: the
# loader and C library come from the target's multiarch packages.
set(CMAKE_CROSSCOMPILING_EMULATOR ${VEKD_QEMU} -E LD_LIBRARY_PATH=${VEKD_CROSS_EXTRA})
