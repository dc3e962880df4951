# Shared by run.sh and e2e_test.sh (source it): the two-link network in two
# network namespaces, the HTTP server, the daemon with its statistics
# publisher, and their removal.
#
# Nothing here touches the machine's own network namespace: links are created
# inside the client namespace with their peers inside the server namespace,
# and every ip/tc/iptables/sysctl call runs through `ip netns exec`.
#
# Caller sets TB_BIN (directory holding vekd, vekstatd, vekctl) and may set
# TB_WLAN_KBPS / TB_WWAN_KBPS (kbit/s, 1 kbit = 1024 bit, as the daemon
# counts), TB_KEEP=1 (keep the work directory), TB_CONF_EXTRA (lines for
# vekd.conf).

TB_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
TB_PY=${PYTHON:-/usr/bin/python3}
[ -x "$TB_PY" ] || TB_PY=$(command -v python3)

TB_UID_APP=${TB_UID_APP:-10123}      # the enrolled application
TB_UID_OTHER=${TB_UID_OTHER:-10124}  # an application that is not enrolled
TB_SERVER_IP=10.9.0.1                # the "internet" host behind both links
TB_LINKS=(wlan0 rmnet_data0)
declare -A TB_PEER=([wlan0]=srvwlan [rmnet_data0]=srvwwan)
declare -A TB_NET=([wlan0]=10.1.0 [rmnet_data0]=10.2.0)
declare -A TB_TABLE=([wlan0]=100 [rmnet_data0]=101)
declare -A TB_MARK=([wlan0]=0x5A [rmnet_data0]=0x5B)
# The interface parameter strings, as the framework sends them.
declare -A TB_IFACE_PARAMS=(
  [wlan0]="wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1"
  [rmnet_data0]="rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1"
)

# The link monitor's settings in the testbed: a probe a second (the least on
# a metered link), "min_ping_times" 4: nine unanswered in a row, with nothing
# received meanwhile, make a link down.
TB_LINK_CONF="ping_period_ms = 1000
min_ping_times = 4
rtt_server = $TB_SERVER_IP"

TB_PIDS=()
TB_NS_C=""
TB_NS_S=""
TB_NS_MADE=()  # only the namespaces this run created are removed
TB_WORK=""
TB_ROOT=""

tb_log() { echo "testbed: $*" >&2; }
tb_die() { echo "testbed: error: $*" >&2; exit 1; }

tb_c() { ip netns exec "$TB_NS_C" "$@"; }   # run in the client (handset)
tb_s() { ip netns exec "$TB_NS_S" "$@"; }   # run in the server
tb_must() { "$@" || tb_die "failed: $*"; }

# Names unique to this run, so that parallel runs never collide.
tb_init() {
  TB_NS_C=vektb-c-$$
  TB_NS_S=vektb-s-$$
  TB_WORK=$(mktemp -d /tmp/vektb-$$-XXXXXX)
  TB_ROOT=$TB_WORK/root
  TB_TIMELINE=$TB_WORK/timeline.jsonl  # where marks, shaping and the monitor write
  trap tb_cleanup EXIT
  trap 'tb_log "interrupted"; exit 130' INT
  trap 'tb_log "terminated"; exit 143' TERM
}

tb_require() {
  local b missing=()
  for b in vekd vekstatd vekctl; do
    [ -x "$TB_BIN/$b" ] || missing+=("$TB_BIN/$b")
  done
  ((${#missing[@]} == 0)) || tb_die "not built: ${missing[*]} (run scripts/build.sh normal)"
  for b in ip tc iptables sysctl; do
    command -v $b >/dev/null || tb_die "$b not found (run scripts/install-deps.sh)"
  done
  [ -x "$TB_PY" ] || tb_die "python3 not found"
}

tb_cleanup() {
  local rc=$? pid ns
  trap - EXIT
  trap '' INT TERM  # a second Ctrl-C must not cut the clean-up short
  for pid in "${TB_PIDS[@]}"; do
    kill "$pid" 2>/dev/null
  done
  # Whatever else still runs inside our namespaces was started by this run.
  for ns in "${TB_NS_MADE[@]}"; do
    ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null
  done
  for pid in "${TB_PIDS[@]}"; do
    for _ in 1 2 3 4 5 6 7 8 9 10; do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null
  done
  for ns in "${TB_NS_MADE[@]}"; do
    ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null
    ip netns del "$ns" 2>/dev/null
  done
  if [ -n "$TB_WORK" ] && [ -d "$TB_WORK" ]; then
    if [ "${TB_KEEP:-0}" = 1 ]; then
      tb_log "kept $TB_WORK"
    else
      rm -rf "$TB_WORK"
    fi
  fi
  exit $rc
}

# tb_bg NAME CMD...: starts CMD in the background, standard output to
# $TB_WORK/NAME.out, standard error to $TB_WORK/NAME.log, and remembers its
# PID (also as TB_PID_NAME) for clean-up.
tb_bg() {
  local name=$1; shift
  "$@" >"$TB_WORK/$name.out" 2>"$TB_WORK/$name.log" &
  TB_PIDS+=($!)
  eval "TB_PID_${name//-/_}=$!"
}

# tbf on both ends: the server's egress shapes downloads, the client's shapes
# uploads and ACKs. A burst of at least 10 ms keeps faster links at their rate.
tb_shape() {
  local link=$1 kbps=$2 bits burst verb=${3:-add}
  bits=$((kbps * 1024))
  burst=$((bits / 8 / 100)); ((burst < 4000)) && burst=4000  # bytes
  tb_must tb_c tc qdisc $verb dev "$link" root tbf rate ${bits}bit burst $burst latency 400ms
  tb_must tb_s tc qdisc $verb dev "${TB_PEER[$link]}" root tbf rate ${bits}bit burst $burst latency 400ms
  printf '{"kind": "shape", "link": "%s", "kbps": %d, "t": %s}\n' "$link" "$kbps" "$(date +%s.%N)" \
    >>"$TB_TIMELINE"
}

tb_net_up() {
  local link net
  local ns
  for ns in "$TB_NS_C" "$TB_NS_S"; do
    ip netns add "$ns" || tb_die "cannot create namespace $ns"
    TB_NS_MADE+=("$ns")
  done
  tb_must tb_c ip link set lo up
  tb_must tb_s ip link set lo up
  tb_must tb_s ip addr add $TB_SERVER_IP/32 dev lo
  # Loose reverse-path filtering: replies may come back on either link.
  for k in all default; do tb_must tb_c sysctl -qw net.ipv4.conf.$k.rp_filter=2; done
  for link in "${TB_LINKS[@]}"; do
    net=${TB_NET[$link]}
    tb_must tb_c ip link add "$link" type veth peer name "${TB_PEER[$link]}" netns "$TB_NS_S"
    tb_must tb_c sysctl -qw net.ipv4.conf.$link.rp_filter=2
    tb_must tb_c ip addr add $net.2/24 dev "$link"
    tb_must tb_s ip addr add $net.1/24 dev "${TB_PEER[$link]}"
    tb_must tb_c ip link set "$link" up
    tb_must tb_s ip link set "${TB_PEER[$link]}" up
    # Each link's own table (numbered; the ip wrapper maps the names).
    tb_must tb_c ip route add $net.0/24 dev "$link" table ${TB_TABLE[$link]}
    tb_must tb_c ip route add default via $net.1 dev "$link" table ${TB_TABLE[$link]}
  done
  # The WLAN is the default network.
  tb_must tb_c ip route add default via ${TB_NET[wlan0]}.1 dev wlan0
  tb_shape wlan0 "$TB_WLAN_KBPS"
  tb_shape rmnet_data0 "$TB_WWAN_KBPS"
}

tb_server_up() {
  local www=$TB_WORK/www tls=()
  mkdir -p "$www"
  head -c $((8 << 20)) /dev/zero >"$www/big.bin"
  if command -v openssl >/dev/null &&
     openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=$TB_SERVER_IP \
       -keyout "$TB_WORK/key.pem" -out "$TB_WORK/cert.pem" >/dev/null 2>&1; then
    tls=(--cert "$TB_WORK/cert.pem" --key "$TB_WORK/key.pem")
  fi
  tb_bg httpd tb_s "$TB_PY" "$TB_DIR/httpd.py" --root "$www" "${tls[@]}"
  # Each link's DNS server (the address its interface record names).
  local link
  for link in "${TB_LINKS[@]}"; do
    tb_bg "dns-$link" tb_s "$TB_PY" "$TB_DIR/dns.py" serve "${TB_NET[$link]}.1" "${TB_PEER[$link]}"
  done
  local i
  for i in $(seq 50); do
    tb_c bash -c "exec 3<>/dev/tcp/$TB_SERVER_IP/80" 2>/dev/null && return 0
    sleep 0.1
  done
  cat "$TB_WORK/httpd.log" >&2
  tb_die "the HTTP server did not come up"
}

# The daemon's root: wrappers that run the real iptables and ip, the
# configuration file and the property store.
tb_make_root() {
  local bin=$TB_ROOT/system/bin ipt ipb
  ipt=$(command -v iptables); ipb=$(command -v ip)
  mkdir -p "$bin" "$TB_ROOT/data/vendor/vek" "$TB_ROOT/dev/__properties__"
  cat >"$bin/iptables-wrapper-1.0" <<EOF
#!/bin/sh
exec $ipt "\$@"
EOF
  # Routing tables are numbered in the namespace; the daemon names them after
  # the interfaces, so the names are mapped here instead of in the machine's
  # rt_tables.
  cat >"$bin/ip-wrapper-1.0" <<EOF
#!/bin/bash
args=() prev=
for a in "\$@"; do
  if [ "\$prev" = table ]; then
    case \$a in wlan0) a=${TB_TABLE[wlan0]} ;; rmnet_data0) a=${TB_TABLE[rmnet_data0]} ;; esac
  fi
  args+=("\$a"); prev=\$a
done
exec $ipb "\${args[@]}"
EOF
  chmod 755 "$bin/iptables-wrapper-1.0" "$bin/ip-wrapper-1.0"
  {
    echo "mini_est_interval = ${TB_INTERVAL_MS:-1000}"
    echo "wifi_threshold = ${TB_WIFI_THRESHOLD:-1600}"
    [ "${TB_LINK_MONITOR:-0}" = 1 ] && printf '%s\n' "$TB_LINK_CONF"
    [ -n "${TB_CONF_EXTRA:-}" ] && printf '%s\n' "$TB_CONF_EXTRA"
  } >"$TB_ROOT/data/vendor/vek/vekd.conf"
}

tb_vekctl() { tb_c env VEKD_ROOT="$TB_ROOT" "$TB_BIN/vekctl" "$@"; }

tb_daemons_up() {
  tb_vekctl setprop vendor.vek.enabled 1 || tb_die "vekctl setprop failed"
  tb_vekctl setprop vendor.vek.debug 1
  tb_bg vekstatd tb_c env VEKD_ROOT="$TB_ROOT" "$TB_BIN/vekstatd"
  local i
  for i in $(seq 50); do [ -p "$TB_ROOT/proc/vek/config" ] && break; sleep 0.1; done
  [ -p "$TB_ROOT/proc/vek/config" ] || { cat "$TB_WORK/vekstatd.log" >&2; tb_die "vekstatd did not create its FIFO"; }
  tb_bg vekd tb_c env VEKD_ROOT="$TB_ROOT" "$TB_BIN/vekd"
  for i in $(seq 100); do
    tb_vekctl ping >/dev/null 2>&1 && return 0
    kill -0 "$TB_PID_vekd" 2>/dev/null || break
    sleep 0.1
  done
  tail -20 "$TB_WORK/vekd.log" >&2
  tb_die "vekd does not answer on binder"
}

# What the framework sends once both links are up.
tb_configure() {
  tb_vekctl iface 0 "${TB_IFACE_PARAMS[wlan0]}" &&
  tb_vekctl iface 1 "${TB_IFACE_PARAMS[rmnet_data0]}" &&
  tb_vekctl iface-ready &&
  tb_vekctl wlan-inet 1 &&
  tb_vekctl update-uid "$TB_UID_APP" 1 || tb_die "configuring the daemon through vekctl failed"
}

# Our own counters of new TCP connections per UID, by mark and by egress link,
# in a chain of our own (mangle POSTROUTING sees the daemon's marks).
tb_accounting() {
  local uid link
  tb_must tb_c iptables -w -t mangle -N tb_acct
  tb_must tb_c iptables -w -t mangle -A POSTROUTING -p tcp --syn -j tb_acct
  for uid in "$TB_UID_APP" "$TB_UID_OTHER"; do
    tb_must tb_c iptables -w -t mangle -A tb_acct -m owner --uid-owner "$uid" -m comment --comment "uid$uid:all"
    for link in "${TB_LINKS[@]}"; do
      tb_must tb_c iptables -w -t mangle -A tb_acct -m owner --uid-owner "$uid" -m mark --mark "${TB_MARK[$link]}" \
        -m comment --comment "uid$uid:mark:$link"
      tb_must tb_c iptables -w -t mangle -A tb_acct -m owner --uid-owner "$uid" -o "$link" \
        -m comment --comment "uid$uid:out:$link"
    done
  done
}

# The whole testbed, up to a configured daemon with our own counters.
tb_bring_up() {
  tb_net_up
  tb_server_up
  tb_make_root
  tb_daemons_up
  tb_accounting
  tb_configure
}

# Timeline records of our own: phases of the run and shaping changes.
tb_mark() {
  printf '{"kind": "mark", "name": "%s", "t": %s}\n' "$1" "$(date +%s.%N)" >>"$TB_TIMELINE"
}

# True once the daemon has written ratio rules.
tb_ratios_installed() {
  tb_c iptables -w -t mangle -S kwop_VEK 2>/dev/null | grep -q -- '--probability'
}

tb_wait_ratios() {
  local i
  for i in $(seq $((${1:-30} * 4))); do
    tb_ratios_installed && return 0
    sleep 0.25
  done
  return 1
}

# Starts the monitor: live lines on standard output, a timeline of the
# daemon's estimates, its computed shares and the installed rules.
tb_monitor_up() {
  tb_c env VEKD_ROOT="$TB_ROOT" "$TB_PY" "$TB_DIR/tbreport.py" monitor --log "$TB_WORK/vekd.log" \
    --timeline "$TB_TIMELINE" --app-uid "$TB_UID_APP" --links "${TB_LINKS[@]}" \
    --vekctl "$TB_BIN/vekctl" &
  TB_PIDS+=($!)
  TB_PID_monitor=$!
}

# tb_dns_ask UID: the address that answers UID's query to the resolver the
# handset is configured with (the WLAN's, the default network's), or "none".
tb_dns_ask() { tb_c "$TB_PY" "$TB_DIR/dns.py" ask "${TB_NET[wlan0]}.1" "$1"; }

tb_traffic() {  # NAME UID SECONDS [more traffic.py options]
  local name=$1 uid=$2 secs=$3; shift 3
  tb_bg "$name" tb_c "$TB_PY" "$TB_DIR/traffic.py" download --server "$TB_SERVER_IP" \
    --uid "$uid" --duration "$secs" --progress "$TB_TIMELINE" --name "$name" "$@"
}

# tb_blackhole on|off: the WWAN's packets are dropped where they reach the
# server (its link stays up; only probes and traffic get no answer).
tb_blackhole() {
  local verb=-A name=die
  [ "$1" = off ] && verb=-D name=restore
  tb_must tb_s iptables -w $verb INPUT -i "${TB_PEER[rmnet_data0]}" -j DROP
  tb_mark "$name"
}
