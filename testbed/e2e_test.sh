#!/usr/bin/env bash
# End-to-end: vekd steering real traffic through real iptables over the two
# shaped links of the testbed, a WWAN that dies and comes back, and the clean
# exit. Exit 0 when every check holds, 1 otherwise, 77 (skip) when not root.
set -uo pipefail

if [ "$(id -u)" != 0 ]; then
  echo "SKIP: the testbed needs root to create network namespaces"
  exit 77
fi

here=$(cd "$(dirname "$0")" && pwd)
TB_BIN=${1:?usage: $0 BUILD/bin [OUT-DIR [SECONDS]]} out=${2:-} duration=${3:-45}

TB_WLAN_KBPS=1000 TB_WWAN_KBPS=2000 TB_LINK_MONITOR=1
source "$here/lib.sh"
tb_init
tb_require
: "${out:=$TB_WORK/out}"
mkdir -p "$out/link-dies"

failed=0
check() {  # check "what" CMD...
  "${@:2}" && echo "PASS: $1" && return
  failed=$((failed + 1))
  echo "FAIL: $1"
}
report() {  # report DIR SCENARIO [options]: stops the monitor, summary and picture into DIR
  sleep 1.5
  kill "$TB_PID_monitor" 2>/dev/null
  wait "$TB_PID_monitor" 2>/dev/null
  "$TB_PY" "$TB_DIR/tbreport.py" report --timeline "$TB_TIMELINE" --out "$1" --links "${TB_LINKS[@]}" \
    --app-uid "$TB_UID_APP" --other-uid "$TB_UID_OTHER" --scenario "$2" "${@:3}"
}

tb_bring_up

# --- connections spread by the computed shares; others left alone ------------
tb_monitor_up >/dev/null
tb_mark traffic
tb_traffic app "$TB_UID_APP" "$duration" --workers 16 --conn-time 0.3
tb_traffic other "$TB_UID_OTHER" "$duration" --workers 8 --conn-time 0.3
tb_wait_ratios 20 && sleep 2 && tb_mark measure
wait "$TB_PID_app" "$TB_PID_other"
tb_mark end
report "$out" e2e-slow-wlan --app-result "$TB_WORK/app.out" --other-result "$TB_WORK/other.out"
# Bounds from ten runs of each build (testbed/spread.sh), worst seen in brackets.
# --min-conns: below 400 the share bound no longer holds (seen 492).
# --tolerance: 3 standard deviations of a share of 400 random choices, 7 points (seen 3.7).
check "at least 400 connections spread and routed within 7 points of the computed shares; none of the other UID marked" \
  "$TB_PY" "$TB_DIR/tbreport.py" check --summary "$out/summary.json" --tolerance 7 --min-conns 400
# Estimates run 3-5 % low, since only TCP segment bytes count; twice the worst seen (4.2 %).
check "rate estimates within 8 % of the shaped rates" \
  "$TB_PY" "$TB_DIR/tbreport.py" check-rates --summary "$out/summary.json" --tolerance 8

# --- a black-holed WWAN loses its share and gets it back ----------------------
# With the WLAN reported without internet the enrolled UID's DNS goes to the
# WWAN; while the WWAN is dead it goes to the WLAN, then back.
dns_to() {  # dns_to UID ADDRESS: UID's query to the configured resolver is answered by ADDRESS
  local got
  got=$(tb_dns_ask "$1")
  [ "$got" = "$2" ] || { echo "  UID $1: answered by $got, not $2"; return 1; }
}
wlan=${TB_NET[wlan0]}.1 wwan=${TB_NET[rmnet_data0]}.1
tb_vekctl wlan-inet 0 >/dev/null
check "DNS: the WLAN without internet moves the enrolled UID's queries to the WWAN's server, not the other UID's" \
  eval 'dns_to $TB_UID_APP $wwan && dns_to $TB_UID_OTHER $wlan'
# 24 s of traffic: the WWAN dies after 8 s and comes back after 16.
grep '"shape"' "$TB_TIMELINE" >"$TB_WORK/link-dies.jsonl"  # the shaped rates hold on
TB_TIMELINE=$TB_WORK/link-dies.jsonl
tb_monitor_up >/dev/null
tb_traffic app "$TB_UID_APP" 24 --workers 16 --conn-time 0.3
sleep 8
tb_blackhole on
sleep 8
check "DNS: the WWAN dead, the enrolled UID's queries go to the WLAN's server" dns_to "$TB_UID_APP" "$wlan"
tb_blackhole off
wait "$TB_PID_app"
check "DNS: the WWAN back, its server again" dns_to "$TB_UID_APP" "$wwan"
tb_vekctl wlan-inet 1 >/dev/null
check "DNS: the WLAN with internet again, its server again" dns_to "$TB_UID_APP" "$wlan"
report "$out/link-dies" e2e-link-dies | grep -A3 black-holed
# --max-failover: its traffic stops, nine probes 50 ms apart go unanswered, and the turn it wakes.
# --max-dead-share: none seen; two of the 40-70 connections may be counted at the window's edge.
# --max-recovery: 2 s down at least, a probe a second answered, the next turn and the 1 s counter sampling.
check "a dead WWAN: share 0 within 2 s, at most 5 % of new connections into it, carrying again within 10 s of its return" \
  "$TB_PY" "$TB_DIR/tbreport.py" check-failover --summary "$out/link-dies/summary.json" \
  --max-failover 2 --max-dead-share 0.05 --max-recovery 10

# --- switching the feature off removes the daemon's rules --------------------
tb_vekctl setprop vendor.vek.enabled 2
timeout 10 sh -c 'until grep -q "Vekd exiting" "$0"; do sleep 0.1; done' "$TB_WORK/vekd.log"
check "the daemon exited and left no mangle chain, masquerading chain or fwmark rule" eval \
  'grep -q "Vekd exiting" "$TB_WORK/vekd.log" && ! tb_c iptables -w -t mangle -S | grep -q kwop &&
   ! tb_c iptables -w -t nat -S | grep -q kwop_nat_POSTROUTING_NUV && [ -z "$(tb_c ip rule show priority 25000)" ]'

exit $((failed > 0))
