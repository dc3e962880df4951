#!/usr/bin/env bash
# Runs the end-to-end test N times against one build and prints, per run and
# at worst, each figure its checks bound (the spread the bounds are set from).
#   testbed/spread.sh BUILD/bin OUT-DIR [N]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bin=${1:?usage: $0 BUILD/bin OUT-DIR [N]} out=${2:?usage: $0 BUILD/bin OUT-DIR [N]} n=${3:-10}
mkdir -p "$out"
for i in $(seq 1 "$n"); do
  echo "--- run $i of $n"
  "$here/e2e_test.sh" "$bin" "$out/run-$i" >"$out/run-$i.log" 2>&1
  echo "exit $? ($(grep -c '^FAIL' "$out/run-$i.log") failed checks)"
done
"${PYTHON:-python3}" "$here/tbreport.py" spread "$out"/run-*[0-9]
