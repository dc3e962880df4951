#!/usr/bin/env bash
# Whole-process figures of the daemon: round trips of `vekctl ping` and
# `vekctl update-uid` (with its rule and socket work), processor use over 10 s
# idle in run state 1 and in run state 2 (also with the link monitor probing
# every 250 ms), and resident memory.
#
# Runs as root inside a private network namespace of its own, with wrappers
# that run the real iptables and ip there. Usage: daemon_figures.sh [BUILD_DIR]
set -euo pipefail

build=$(realpath "${1:-$(dirname "$0")/../../build}")
if [ "$(id -u)" != 0 ]; then echo "needs root (it creates a network namespace)" >&2; exit 1; fi
if [ -z "${VEKD_FIGURES_INSIDE:-}" ]; then
  exec env VEKD_FIGURES_INSIDE=1 unshare --net -- "$0" "$build"
fi
ip link set lo up

root=$(mktemp -d /tmp/vekd-figures-XXXXXX)
daemon=
cleanup() { [ -n "$daemon" ] && kill -9 "$daemon" 2>/dev/null; rm -rf "$root"; }
trap cleanup EXIT

mkdir -p "$root/system/bin" "$root/data/vendor/vek" "$root/dev/__properties__" "$root/proc/vek"
cat > "$root/system/bin/iptables-wrapper-1.0" <<'W'
#!/bin/sh
exec iptables "$@"
W
# The route check asks for a table named like the interface; answer it here,
# everything else goes to the real ip.
cat > "$root/system/bin/ip-wrapper-1.0" <<'W'
#!/bin/sh
[ "$1 $2 $3" = "route show table" ] && exit 0
exec ip "$@" 2>/dev/null
W
chmod +x "$root/system/bin/"*
echo "vek_uid_list=10123" > "$root/data/vendor/vek/vekd.conf"
ip link add wlan0 type veth peer name wlan0p
ip link add rmnet_data0 type veth peer name rmnet_data0p

vekctl() { VEKD_ROOT=$root "$build/bin/vekctl" "$@"; }
start_daemon() {
  VEKD_ROOT=$root "$build/bin/vekd" 2>>"$root/vekd.log" &
  daemon=$!
  for _ in $(seq 100); do vekctl ping >/dev/null 2>&1 && break; sleep 0.05; done
}
configure() {
  vekctl iface 0 wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1
  vekctl iface 1 rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1
  vekctl iface-ready
}
start_daemon

millis_per_call() {  # N command...
  local n=$1; shift
  local start end
  start=$(date +%s%N)
  for _ in $(seq "$n"); do "$@" >/dev/null; done
  end=$(date +%s%N)
  awk -v d=$((end - start)) -v n="$n" 'BEGIN { printf "%.2f", d / n / 1e6 }'
}
cpu_percent_over() {  # seconds
  local ticks=$(getconf CLK_TCK) before after
  before=$(awk '{print $14 + $15}' "/proc/$daemon/stat")
  sleep "$1"
  after=$(awk '{print $14 + $15}' "/proc/$daemon/stat")
  awk -v t=$((after - before)) -v hz="$ticks" -v s="$1" 'BEGIN { printf "%.2f", t * 100 / hz / s }'
}
rss_kib() { awk '/VmRSS/ {print $2}' "/proc/$daemon/status"; }

ping_ms=$(millis_per_call 50 vekctl ping)
cpu1=$(cpu_percent_over 10)
rss1=$(rss_kib)

configure
update_ms=$(millis_per_call 20 vekctl update-uid 10123 1)
cpu2=$(cpu_percent_over 10)
rss2=$(rss_kib)

# Again with the link monitor on, probing a target on the loopback.
kill "$daemon"; wait "$daemon" 2>/dev/null || true
printf 'ping_period_ms=1000\nrtt_server=127.0.0.1\n' >> "$root/data/vendor/vek/vekd.conf"
start_daemon
configure
sleep 1
cpu3=$(cpu_percent_over 10)
probes=$(grep -c "LinkMonitor" "$root/vekd.log" || true)

printf '%-44s %10s\n' "figure" "value"
printf '%-44s %8s ms\n' "vekctl ping round trip (process included)" "$ping_ms"
printf '%-44s %8s ms\n' "vekctl update-uid round trip" "$update_ms"
printf '%-44s %8s %%\n' "processor, 10 s idle in run state 1" "$cpu1"
printf '%-44s %8s %%\n' "processor, 10 s in run state 2 (5 s period)" "$cpu2"
printf '%-44s %8s %%\n' "processor, 10 s in run state 2, link monitor" "$cpu3"
printf '%-44s %8s\n' "link monitor state changes logged" "$probes"
printf '%-44s %7s KiB\n' "resident memory, run state 1" "$rss1"
printf '%-44s %7s KiB\n' "resident memory, run state 2" "$rss2"
