#!/usr/bin/env bash
# Builds one flavour: normal (build/), asan (build/asan: address + undefined
# behaviour sanitizers) or tsan (build/tsan: thread sanitizer, only the tests
# labelled "threads" and what they need).
set -euo pipefail
cd "$(dirname "$0")/.."

flavour=${1:-normal}
case "$flavour" in
  normal) dir=build; extra=() ;;
  asan)   dir=build/asan; extra=(-DVEKD_SANITIZE=address,undefined -DVEKD_BUILD_BENCHMARKS=OFF) ;;
  tsan)   dir=build/tsan; extra=(-DVEKD_SANITIZE=thread -DVEKD_BUILD_BENCHMARKS=OFF) ;;
  *) echo "usage: $0 [normal|asan|tsan]" >&2; exit 2 ;;
esac

cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${extra[@]}" >/dev/null
if [ "$flavour" = tsan ]; then
  cmake --build "$dir" -j"$(nproc)" --target threads_tests
else
  cmake --build "$dir" -j"$(nproc)"
fi
