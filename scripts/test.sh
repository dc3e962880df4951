#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test: once in a normal
# build and once under the address and undefined-behaviour sanitizers; the
# tests that run threads against each other (label "threads") run a third time
# under the thread sanitizer; the unit tests of the arm64 and 32-bit ARM
# cross builds run under qemu-user; then the fuzz targets and a short soak run.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

status=0
# Sockets of every UID the tests enrol, held in the machine's own network
# namespace for the whole run: a test that destroys sockets outside a
# namespace of its own fails the run.
guard_ready=$(mktemp)
rm -f "$guard_ready"
python3 scripts/host_sockets_guard.py hold --ready "$guard_ready" &
guard=$!
trap 'kill -TERM $guard 2>/dev/null' EXIT
until [ -f "$guard_ready" ] || ! kill -0 $guard 2>/dev/null; do sleep 0.1; done
[ -f "$guard_ready" ] || { echo "host sockets guard did not start"; exit 1; }
rm -f "$guard_ready"

# Test lines per code line: the limit only comes down, as the suite is
# reshaped towards a third of the code.
echo "=== proportion of tests ==="
python3 scripts/proportion.py --limit 0.40 || status=1
# No include arrow from a lower folder up to a higher one.
echo "=== layers ==="
python3 scripts/layers.py --check || status=1

for flavour in normal asan; do
  echo "=== $flavour build ==="
  scripts/build.sh "$flavour"
  dir=build; [ "$flavour" = normal ] || dir=build/$flavour
  echo "=== $flavour tests ==="
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300 || status=1
done
echo "=== tsan build ==="
scripts/build.sh tsan
echo "=== tsan tests ==="
ctest --test-dir build/tsan --output-on-failure -j"$(nproc)" --timeout 300 -L threads || status=1

# The ARM builds: only the unit tests, each program under qemu-user.
for flavour in arm64 armhf; do
  start=$SECONDS
  echo "=== $flavour build ==="
  scripts/build.sh "$flavour"
  echo "=== $flavour unit tests (qemu-user) ==="
  ctest --test-dir "build/$flavour" --output-on-failure -j"$(nproc)" --timeout 300 || status=1
  echo "$flavour: build and unit tests took $((SECONDS - start)) s"
done

# Robustness: each fuzz target for a share of a minute (clang tree
# build/fuzz), then a one-minute soak of the normal build on the testbed.
echo "=== fuzzing ==="
scripts/fuzz.sh 60 || status=1
echo "=== soak ==="
scripts/soak.sh 60 || status=1

echo "=== README figures ==="
python3 scripts/readme_figures.py --check || status=1
echo "=== host sockets ==="
kill -USR1 $guard
wait $guard || status=1
trap - EXIT

exit $status
