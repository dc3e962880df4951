#!/usr/bin/env bash
# End-to-end: vekd steering real traffic over the two shaped links of the
# testbed. Exit 0 when every check holds, 1 otherwise, 77 (skip) when not
# root.
#
#   e2e_test.sh --bin BUILD/bin [--out DIR] [--duration S]
set -uo pipefail

if [ "$(id -u)" != 0 ]; then
  echo "SKIP: the testbed needs root to create network namespaces"
  exit 77
fi

here=$(cd "$(dirname "$0")" && pwd)
TB_BIN="" out="" duration=45
while (($#)); do
  case $1 in
    --bin) TB_BIN=$2; shift ;;
    --out) out=$2; shift ;;
    --duration) duration=$2; shift ;;
    *) echo "usage: $0 --bin DIR [--out DIR] [--duration S]" >&2; exit 2 ;;
  esac
  shift
done
[ -n "$TB_BIN" ] || { echo "usage: $0 --bin DIR [--out DIR] [--duration S]" >&2; exit 2; }

TB_WLAN_KBPS=1000 TB_WWAN_KBPS=2000 TB_LINK_MONITOR=1
source "$here/lib.sh"
tb_init
tb_require
: "${out:=$TB_WORK/out}"
mkdir -p "$out"

passed=0 failed=0
check() {  # check "what" CMD...
  local what=$1; shift
  if "$@"; then
    echo "PASS: $what"; passed=$((passed + 1))
  else
    echo "FAIL: $what"; failed=$((failed + 1))
  fi
}
finish() {
  echo "$passed passed, $failed failed"
  ((failed == 0))
  exit $?
}

tb_bring_up

# --- the daemon's rules exist in the client namespace -----------------------
mangle=$(tb_c iptables -w -t mangle -S)
nat=$(tb_c iptables -w -t nat -S)
rules=$(tb_c ip rule show priority 25000)
has() { grep -qxF -- "$2" <<<"$1"; }
has_chains() {
  local c
  for c in "$@"; do has "$mangle" "-N $c" || return 1; done
}
check "mangle chains kwop_NUV, kwop_NUV2, kwop_DNS, kwop_VEK" \
  has_chains kwop_NUV kwop_NUV2 kwop_DNS kwop_VEK
check "OUTPUT jumps to kwop_NUV" has "$mangle" "-A OUTPUT -j kwop_NUV"
check "the enrolled UID enters kwop_NUV2" \
  has "$mangle" "-A kwop_NUV -m owner --uid-owner $TB_UID_APP -j kwop_NUV2"
check "the not-enrolled UID has no rule" eval '! grep "^-A kwop" <<<"$mangle" | grep -q -- "--uid-owner $TB_UID_OTHER"'
check "mark chains set 0x5a on wlan0 and 0x5b on rmnet_data0" eval \
  'has "$mangle" "-A kwop_fw_wlan0 -j MARK --set-xmark 0x5a/0xffffffff" &&
   has "$mangle" "-A kwop_fw_rmnet_data0 -j MARK --set-xmark 0x5b/0xffffffff"'
check "DNS of enrolled UIDs goes to the WLAN" eval 'grep -q -- "-A kwop_DNS .*-j kwop_fw_wlan0" <<<"$mangle"'
check "masquerading on both links" eval \
  'has "$nat" "-A kwop_nat_POSTROUTING_NUV -o wlan0 -j MASQUERADE" &&
   has "$nat" "-A kwop_nat_POSTROUTING_NUV -o rmnet_data0 -j MASQUERADE"'
check "fwmark rules route 0x5a and 0x5b through the links' tables" eval \
  'grep -q "fwmark 0x5a lookup ${TB_TABLE[wlan0]}" <<<"$rules" &&
   grep -q "fwmark 0x5b lookup ${TB_TABLE[rmnet_data0]}" <<<"$rules"'

# --- connections spread by the computed shares; others left alone ------------
tb_monitor_up >/dev/null
tb_mark traffic
tb_traffic app "$TB_UID_APP" "$duration" --workers 16 --conn-time 0.3
tb_traffic other "$TB_UID_OTHER" "$duration" --workers 8 --conn-time 0.3
if tb_wait_ratios 20; then sleep 2; tb_mark measure; fi
wait "$TB_PID_app" "$TB_PID_other"
tb_mark end
sleep 1.5
kill "$TB_PID_monitor" 2>/dev/null
wait "$TB_PID_monitor" 2>/dev/null
"$TB_PY" "$TB_DIR/tbreport.py" report --timeline "$TB_TIMELINE" --out "$out" \
  --links "${TB_LINKS[@]}" --app-result "$TB_WORK/app.out" --other-result "$TB_WORK/other.out" \
  --app-uid "$TB_UID_APP" --other-uid "$TB_UID_OTHER" --scenario e2e-slow-wlan
check "at least 400 connections spread within 10 points of the computed shares; none of the other UID marked" \
  "$TB_PY" "$TB_DIR/tbreport.py" check --summary "$out/summary.json" --tolerance 10 --min-conns 400
check "rate estimates within 20 % of the shaped rates" \
  "$TB_PY" "$TB_DIR/tbreport.py" check-rates --summary "$out/summary.json" --tolerance 20

# --- update-uid resets the enrolled UID's open connection, and only its -------
tb_bg hold_app tb_c "$TB_PY" "$TB_DIR/traffic.py" hold --server "$TB_SERVER_IP" --uid "$TB_UID_APP" --duration 10
tb_bg hold_other tb_c "$TB_PY" "$TB_DIR/traffic.py" hold --server "$TB_SERVER_IP" --uid "$TB_UID_OTHER" --duration 4
for _ in $(seq 50); do
  grep -q connected "$TB_WORK/hold_app.out" && grep -q connected "$TB_WORK/hold_other.out" && break
  sleep 0.1
done
tb_vekctl update-uid "$TB_UID_APP" 1
wait "$TB_PID_hold_app" "$TB_PID_hold_other"
echo "held connections: $(tail -1 "$TB_WORK/hold_app.out") $(tail -1 "$TB_WORK/hold_other.out")"
check "update-uid resets the enrolled UID's open TCP connection" \
  grep -q '"reset": true' "$TB_WORK/hold_app.out"
check "the not-enrolled UID's connection stays open" \
  grep -q '"error": "TIMEOUT"' "$TB_WORK/hold_other.out"

# --- a black-holed WWAN loses its share and gets it back ----------------------
# 24 s of traffic: the WWAN dies after 8 s and comes back after 16.
grep '"shape"' "$TB_TIMELINE" >"$TB_WORK/link-dies.jsonl"  # the shaped rates hold on
TB_TIMELINE=$TB_WORK/link-dies.jsonl
tb_monitor_up >/dev/null
tb_traffic app "$TB_UID_APP" 24 --workers 16 --conn-time 0.3
sleep 8
tb_blackhole on
sleep 8
tb_blackhole off
wait "$TB_PID_app"
sleep 1.5
kill "$TB_PID_monitor" 2>/dev/null
wait "$TB_PID_monitor" 2>/dev/null
mkdir -p "$out/link-dies"
"$TB_PY" "$TB_DIR/tbreport.py" report --timeline "$TB_TIMELINE" --out "$out/link-dies" \
  --links "${TB_LINKS[@]}" --app-uid "$TB_UID_APP" --other-uid "$TB_UID_OTHER" \
  --scenario e2e-link-dies | grep -A3 black-holed
check "a dead WWAN: share 0 within 3 s, at most 5 % of new connections into it, carrying again within 10 s of its return" \
  "$TB_PY" "$TB_DIR/tbreport.py" check-failover --summary "$out/link-dies/summary.json" \
  --max-failover 3 --max-dead-share 0.05 --max-recovery 10

# --- switching the feature off removes the daemon's rules --------------------
tb_vekctl setprop vendor.vek.enabled 2
for _ in $(seq 100); do grep -q "Vekd exiting" "$TB_WORK/vekd.log" && break; sleep 0.1; done
check "the daemon cleaned up (\"Vekd exiting\")" grep -q "Vekd exiting" "$TB_WORK/vekd.log"
mangle=$(tb_c iptables -w -t mangle -S)
nat=$(tb_c iptables -w -t nat -S)
check "no chain or jump of the daemon is left in mangle" eval '! grep -q kwop <<<"$mangle"'
check "no masquerading chain is left in nat" eval '! grep -q kwop_nat_POSTROUTING_NUV <<<"$nat"'
check "no fwmark rule is left" eval '[ -z "$(tb_c ip rule show priority 25000)" ]'
left=$(grep kwop <<<"$nat" | tr '\n' ';')
[ -n "$left" ] && echo "note: nat rules kept for the next start: $left"

finish
