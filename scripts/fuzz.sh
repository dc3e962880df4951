#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, address + undefined-behaviour
# sanitizers, tree build/fuzz) and runs each from its seed corpus for a share
# of a bounded total time.
#
#   scripts/fuzz.sh [TOTAL_SECONDS] [TARGET...]     (default 60 s, all targets)
#
# Prints one line per target: executions, libFuzzer's coverage figure (cov:),
# the corpus size and the result. A crash leaves its input in
# build/fuzz/artifacts/ and makes the script exit 1; add such an input to
# fuzz/corpus/<target>/ once the fault is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."

total=${1:-60}
shift || true
all=(fuzz_config_file fuzz_iface_params fuzz_stats_ring fuzz_binder_wire fuzz_vekd_transact fuzz_sockdiag_dump)
targets=("$@")
((${#targets[@]})) || targets=("${all[@]}")

dir=build/fuzz
jobs=$(nproc); ((jobs > 2)) && jobs=2
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVEKD_BUILD_FUZZERS=ON -DVEKD_SANITIZE=address,undefined -DVEKD_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$dir" -j"$jobs" --target "${targets[@]}"

# Inputs larger than these gain nothing: the statistics target spreads up to
# three 20480-byte files, the others read short texts or a few datagrams.
declare -A maxLen=([fuzz_stats_ring]=61466 [fuzz_binder_wire]=8192 [fuzz_sockdiag_dump]=16384
                   [fuzz_vekd_transact]=4096 [fuzz_config_file]=4096 [fuzz_iface_params]=1024)

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
per=$((total / ${#targets[@]})); ((per >= 1)) || per=1
mkdir -p "$dir/artifacts" "$dir/logs"
status=0
printf '%-20s %12s %8s %8s  %s\n' target executions cov corpus result
for t in "${targets[@]}"; do
  work=$dir/corpus/$t
  mkdir -p "$work"
  log=$dir/logs/$t.log
  rc=0
  # The working corpus first (libFuzzer adds new inputs there), the seeds
  # from the repository second (only read).
  "$dir/bin/$t" -max_total_time="$per" -timeout=20 -rss_limit_mb=2048 -max_len="${maxLen[$t]:-4096}" \
    -print_final_stats=1 -artifact_prefix="$dir/artifacts/$t-" "$work" "fuzz/corpus/$t" \
    >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -Eo 'cov: [0-9]+' "$log" | tail -1 | cut -d' ' -f2)
  corp=$(grep -Eo 'corp: [0-9]+' "$log" | tail -1 | cut -d' ' -f2)
  if ((rc == 0)); then
    result=ok
  else
    result="FAILED (exit $rc, see $log)"
    status=1
  fi
  printf '%-20s %12s %8s %8s  %s\n' "$t" "${execs:-?}" "${cov:-?}" "${corp:-?}" "$result"
  if ((rc != 0)); then
    grep -E 'ERROR|SUMMARY|fuzz: |Test unit written' "$log" | head -20 | sed 's/^/    /'
  fi
done
exit $status
