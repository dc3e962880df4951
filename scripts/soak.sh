#!/usr/bin/env bash
# Soak: the daemon on the two-link testbed for a bounded time while the links
# change rate every few seconds, applications are enrolled and removed
# continuously and traffic flows. Once a second it samples the daemon's
# resident memory (VmRSS), open descriptors (/proc/PID/fd) and threads
# (/proc/PID/task); it fails when the daemon dies, stops answering, or any of
# the three keeps growing.
#
#   scripts/soak.sh [SECONDS]        (as root; default 600)
#
# Environment: SOAK_BIN (where vekd, vekstatd and vekctl are; default
# build/bin), SOAK_OUT (default build/soak: samples.csv, summary.txt, the
# daemon's log).
#
# "Keeps growing": split the samples after a short warm-up into thirds; a
# figure grows when its median rises from each third to the next AND the
# last third's minimum lies above the first third's maximum by a margin
# (256 kB of memory, 2 descriptors, 2 threads). A single step, such as the
# binder pool starting another thread under load, is not growth.
set -uo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

secs=${1:-600}
[[ $secs =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [SECONDS]" >&2; exit 2; }
if [ "$(id -u)" != 0 ]; then
  echo "soak: skipped, the testbed needs root (network namespaces)" >&2
  exit 0
fi
out=${SOAK_OUT:-$repo/build/soak}
mkdir -p "$out"
out=$(cd "$out" && pwd)

TB_BIN=$(cd "${SOAK_BIN:-$repo/build/bin}" && pwd) || exit 2
TB_WLAN_KBPS=4000 TB_WWAN_KBPS=2000
source "$repo/testbed/lib.sh"

tb_init
tb_require
tb_net_up
tb_server_up
tb_make_root
tb_daemons_up
tb_configure

pid=""
for p in $(ip netns pids "$TB_NS_C"); do
  [ "$(cat /proc/$p/comm 2>/dev/null)" = vekd ] && pid=$p
done
[ -n "$pid" ] || tb_die "cannot find the daemon's process"
echo "== soak: $secs s, vekd pid $pid, samples in $out/samples.csv"

end=$((SECONDS + secs))

# Links: a new rate every 3 s.
rates() {
  local wlan=(4000 1000 2500 600 3000) wwan=(2000 800 3000 1500) i=0
  while ((SECONDS < end)); do
    sleep 3
    tb_shape wlan0 "${wlan[i % ${#wlan[@]}]}" change
    tb_shape rmnet_data0 "${wwan[i % ${#wwan[@]}]}" change
    i=$((i + 1))
  done
}

# Applications: a pool of 20 UIDs enrolled in modes 1 and 2 and removed
# again, the WLAN's internet state flipping now and then. The pool is fixed,
# so the daemon's UID map is bounded and any growth is a leak.
uids() {
  local n=0 uid
  while ((SECONDS < end)); do
    uid=$((10200 + n % 20))
    tb_vekctl update-uid $uid $((1 + n % 2)) >/dev/null 2>&1 || echo "update-uid $uid failed"
    tb_vekctl remove-uid $uid 0 >/dev/null 2>&1 || echo "remove-uid $uid failed"
    ((n % 25 == 0)) && { tb_vekctl wlan-inet $(((n / 25) % 2)) >/dev/null 2>&1 || echo "wlan-inet failed"; }
    n=$((n + 1))
    sleep 0.1
  done
  echo "operations: $n"
}

tb_bg rates rates
tb_bg uids uids
tb_traffic app "$TB_UID_APP" "$secs" --workers 4 --conn-time 0.3
tb_traffic other "$TB_UID_OTHER" "$secs" --workers 2 --conn-time 0.3

samples=$out/samples.csv
echo "t,rss_kb,fds,threads" >"$samples"
failures=()
t=0
while ((SECONDS < end)); do
  sleep 1
  t=$((t + 1))
  if [ ! -d /proc/$pid ]; then
    failures+=("the daemon died after $t s")
    break
  fi
  rss=$(awk '/^VmRSS:/ {print $2}' /proc/$pid/status 2>/dev/null)
  fds=$(ls /proc/$pid/fd 2>/dev/null | wc -l)
  thr=$(ls /proc/$pid/task 2>/dev/null | wc -l)
  echo "$t,${rss:-0},$fds,$thr" >>"$samples"
  if ((t % 10 == 0)) && ! tb_vekctl ping >/dev/null 2>&1; then
    failures+=("no answer to ping after $t s")
  fi
done
wait "$TB_PID_rates" "$TB_PID_uids" 2>/dev/null
nfail=$(grep -c "failed" "$TB_WORK/uids.out")
grep -h "failed" "$TB_WORK/uids.out" | sort | uniq -c >"$out/operation-failures.txt"
((nfail == 0)) || failures+=("$nfail vekctl calls failed, see $out/operation-failures.txt")
cp "$TB_WORK/vekd.log" "$out/vekd.log" 2>/dev/null
ops=$(sed -n 's/^operations: //p' "$TB_WORK/uids.out")

"$TB_PY" - "$samples" "$out/summary.txt" "${ops:-0}" <<'PY' || failures+=("a figure keeps growing (see $out/summary.txt)")
import csv, statistics, sys
rows = list(csv.DictReader(open(sys.argv[1])))
ops = sys.argv[3]
warm = max(1, len(rows) // 20)  # the first samples show start-up, not the steady state
body = rows[warm:]
margins = {"rss_kb": 256, "fds": 2, "threads": 2}
lines, growing = [], []
lines.append(f"samples: {len(rows)} (1 s apart), UID operations: {ops}")
lines.append(f"{'figure':<10}{'start':>10}{'end':>10}{'min':>10}{'max':>10}  verdict")
for key, margin in margins.items():
    vals = [int(r[key]) for r in rows]
    verdict = "steady"
    if len(body) >= 6:
        b = [int(r[key]) for r in body]
        third = len(b) // 3
        first, middle, last = b[:third], b[third:2 * third], b[2 * third:]
        m1, m2, m3 = (statistics.median(x) for x in (first, middle, last))
        if m1 < m2 < m3 and min(last) > max(first) + margin:
            verdict = f"GROWING (medians {m1:g} < {m2:g} < {m3:g}, last third's minimum {min(last)} > first third's maximum {max(first)} + {margin})"
            growing.append(key)
    elif not vals:
        verdict = "no samples"
    lines.append(f"{key:<10}{vals[0] if vals else '-':>10}{vals[-1] if vals else '-':>10}"
                 f"{min(vals) if vals else '-':>10}{max(vals) if vals else '-':>10}  {verdict}")
text = "\n".join(lines)
print(text)
open(sys.argv[2], "w").write(text + "\n")
sys.exit(1 if growing or not rows else 0)
PY

if ((${#failures[@]})); then
  printf 'soak: FAILED: %s\n' "${failures[@]}" >&2
  exit 1
fi
echo "soak: passed"
