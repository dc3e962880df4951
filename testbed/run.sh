#!/usr/bin/env bash
# The two-link testbed: vekd steering real traffic between a WLAN and a WWAN
# link, each shaped to a chosen rate, in network namespaces of its own.
set -uo pipefail

usage() {
  cat <<'EOF'
usage: testbed/run.sh [options]         (as root)

Builds a handset namespace joined to a server namespace by two shaped links,
wlan0 and rmnet_data0, runs vekstatd and vekd in the handset with wrappers
around the real iptables and ip, configures the daemon through vekctl as the
framework does, and downloads over HTTP as an enrolled application (UID
10123) and, for contrast, as one that is not enrolled (UID 10124).

Prints a line per evaluation period (each link's rate estimate, computed
share and share in the rules, from the daemon's dump), then a summary table;
writes summary.txt, summary.json, picture.svg and dump.txt (the daemon's
report two seconds before the traffic ends).

Scenarios:
  --slow-wlan    WLAN 1000 kbit/s, below wifi_threshold (1600): the WWAN
                 (2000 kbit/s) fills in                          (default)
  --fast-wlan    WLAN 4000 kbit/s: only the WLAN carries the traffic
  --wlan-drop    WLAN 4000 kbit/s dropping to 1000 kbit/s halfway
  --link-dies    slow WLAN; the WWAN is black-holed (its packets dropped at
                 the server) from one third of the run to two thirds
  --scenario NAME  the same by name (slow-wlan, fast-wlan, wlan-drop,
                 link-dies)

Options:
  --duration S   seconds of traffic (default 40; 60 for --wlan-drop)
  --wlan KBPS    override the WLAN rate (kbit/s of 1024 bit)
  --wwan KBPS    override the WWAN rate
  --workers N    parallel downloads per application (default 16)
  --conn-time S  seconds the server sends on one download (default 0.3)
  --https PCT    percentage of downloads over HTTPS, port 443 (default 20)
  --no-monitor   the daemon does not probe the links (by default it probes
                 each every second: "ping_period_ms" 1000, "min_ping_times" 4)
  --bin DIR      where vekd, vekstatd and vekctl are (default build/bin)
  --out DIR      where the summary and picture go
                 (default build/testbed/SCENARIO)
  --keep         keep the run's work directory (logs, daemon root)
  --help         this text

Everything runs in namespaces named after this process; they, the processes
and the work directory are removed on exit, on Ctrl-C and on failure.
EOF
}

here=$(cd "$(dirname "$0")" && pwd)
repo=$(dirname "$here")
TB_LINK_MONITOR=1
scenario=slow-wlan duration="" wlan="" wwan="" workers=16 conn_time=0.3 https=20
TB_BIN=$repo/build/bin out=""
while (($#)); do
  case $1 in
    --slow-wlan|--fast-wlan|--wlan-drop|--link-dies) scenario=${1#--} ;;
    --scenario) scenario=${2:-}; shift ;;
    --duration) duration=${2:-}; shift ;;
    --wlan) wlan=${2:-}; shift ;;
    --wwan) wwan=${2:-}; shift ;;
    --workers) workers=${2:-}; shift ;;
    --conn-time) conn_time=${2:-}; shift ;;
    --https) https=${2:-}; shift ;;
    --bin) TB_BIN=${2:-}; shift ;;
    --out) out=${2:-}; shift ;;
    --keep) TB_KEEP=1 ;;
    --no-monitor) TB_LINK_MONITOR=0 ;;
    -h|--help) usage; exit 0 ;;
    *) echo "unknown option: $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

case $scenario in
  slow-wlan) : "${wlan:=1000}" "${wwan:=2000}" "${duration:=40}" ;;
  fast-wlan) : "${wlan:=4000}" "${wwan:=2000}" "${duration:=40}" ;;
  wlan-drop) : "${wlan:=4000}" "${wwan:=2000}" "${duration:=60}"; drop_to=1000 ;;
  link-dies) : "${wlan:=1000}" "${wwan:=2000}" "${duration:=45}" ;;
  *) echo "unknown scenario: $scenario (see --help)" >&2; exit 2 ;;
esac
[[ $https =~ ^([0-9]|[1-9][0-9]|100)$ ]] || { echo "not a percentage: $https" >&2; exit 2; }
for n in "$duration" "$wlan" "$wwan" "$workers"; do
  [[ $n =~ ^[1-9][0-9]*$ ]] || { echo "not a positive whole number: $n" >&2; exit 2; }
done
[[ $conn_time =~ ^[0-9]*\.?[0-9]+$ ]] || { echo "not a number of seconds: $conn_time" >&2; exit 2; }
[ "$(id -u)" = 0 ] || { echo "the testbed needs root (network namespaces)" >&2; exit 2; }

TB_WLAN_KBPS=$wlan TB_WWAN_KBPS=$wwan
TB_BIN=$(cd "$TB_BIN" 2>/dev/null && pwd) || { echo "no such directory: $TB_BIN" >&2; exit 2; }
: "${out:=$repo/build/testbed/$scenario$( ((TB_LINK_MONITOR)) || echo -no-monitor)}"
mkdir -p "$out" || exit 1
out=$(cd "$out" && pwd)
source "$here/lib.sh"

tb_init
tb_require
echo "== scenario $scenario: wlan0 $wlan kbit/s, rmnet_data0 $wwan kbit/s, $duration s of traffic," \
  "link monitor $( ((TB_LINK_MONITOR)) && echo on || echo off)"
tb_bring_up
echo "== daemon configured through vekctl; its rules in the handset namespace:"
{
  tb_c iptables -w -t mangle -S | grep -E '^-N kwop|^-A (OUTPUT|kwop_NUV|kwop_DNS|kwop_fw_)'
  tb_c iptables -w -t nat -S kwop_nat_POSTROUTING_NUV | grep -- '^-A'
  tb_c ip rule show priority 25000
} | sed 's/^/   /'

echo "== traffic: UID $TB_UID_APP (enrolled) and UID $TB_UID_OTHER (not enrolled), $workers parallel downloads each, $https % over HTTPS"
tb_monitor_up
tb_mark traffic
tb_traffic app "$TB_UID_APP" "$duration" --workers "$workers" --conn-time "$conn_time" --https "$https"
tb_traffic other "$TB_UID_OTHER" "$duration" --workers "$workers" --conn-time "$conn_time" --https "$https"
t_start=$SECONDS
if tb_wait_ratios 20; then
  sleep 2  # the first rules may predate the traffic: let the daemon see it
  tb_mark measure
else
  echo "testbed: the daemon installed no ratio rules within 20 s" >&2
fi
if [ "$scenario" = wlan-drop ]; then
  left=$((duration / 2 - (SECONDS - t_start)))
  ((left > 0)) && { sleep $left & wait $!; }  # a signal ends the wait at once
  echo "== wlan0 drops to $drop_to kbit/s"
  tb_shape wlan0 "$drop_to" change
elif [ "$scenario" = link-dies ]; then
  # Thirds of the whole run, counted from the start of the traffic.
  left=$((duration / 3 - (SECONDS - t_start)))
  ((left > 0)) && { sleep $left & wait $!; }
  echo "== rmnet_data0 black-holed"
  tb_blackhole on
  sleep $((duration / 3)) & wait $!
  echo "== rmnet_data0 restored"
  tb_blackhole off
fi
# The daemon's own report, two seconds before the traffic ends.
left=$((duration - 2 - (SECONDS - t_start)))
((left > 0)) && { sleep $left & wait $!; }
tb_vekctl dump >"$out/dump.txt" 2>&1
wait "$TB_PID_app" "$TB_PID_other"
tb_mark end
sleep 1.5  # one more sample of the counters
kill "$TB_PID_monitor" 2>/dev/null
wait "$TB_PID_monitor" 2>/dev/null

echo
"$TB_PY" "$here/tbreport.py" report --timeline "$TB_TIMELINE" --out "$out" \
  --links "${TB_LINKS[@]}" --app-result "$TB_WORK/app.out" --other-result "$TB_WORK/other.out" \
  --app-uid "$TB_UID_APP" --other-uid "$TB_UID_OTHER" --scenario "$scenario$( ((TB_LINK_MONITOR)) || echo ', monitor off')" || exit 1
cp "$TB_WORK/vekd.log" "$TB_WORK/timeline.jsonl" "$out/" 2>/dev/null
echo
echo "written: $out/summary.txt, $out/picture.svg (daemon log: $out/vekd.log, its report: $out/dump.txt)"
