#!/usr/bin/env bash
# Builds one flavour: normal (build/), asan (build/asan: address + undefined
# behaviour sanitizers), tsan (build/tsan: thread sanitizer, only the tests
# labelled "threads" and what they need), or one of the ARM cross builds
# arm64 (build/arm64) and armhf (build/armhf: 32-bit ARM), which hold the
# daemon, vekctl and the unit tests (run under qemu-user by ctest).
set -euo pipefail
cd "$(dirname "$0")/.."

flavour=${1:-normal}
case "$flavour" in
  normal) dir=build; extra=() ;;
  asan)   dir=build/asan; extra=(-DVEKD_SANITIZE=address,undefined -DVEKD_BUILD_BENCHMARKS=OFF) ;;
  tsan)   dir=build/tsan; extra=(-DVEKD_SANITIZE=thread -DVEKD_BUILD_BENCHMARKS=OFF) ;;
  arm64)  dir=build/arm64; extra=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake -DVEKD_UNIT_TESTS_ONLY=ON) ;;
  armhf)  dir=build/armhf; extra=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake -DVEKD_UNIT_TESTS_ONLY=ON) ;;
  *) echo "usage: $0 [normal|asan|tsan|arm64|armhf]" >&2; exit 2 ;;
esac

cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${extra[@]}" >/dev/null
if [ "$flavour" = tsan ]; then
  cmake --build "$dir" -j"$(nproc)" --target threads_tests
else
  cmake --build "$dir" -j"$(nproc)"
fi
