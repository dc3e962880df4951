#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/<target>/ (run from anywhere).

Seeds are small valid or nearly valid inputs of each target's format, so the
fuzzers start deep in the code instead of at the first length check.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
NOW_MS = 1700000000000
MAGIC = 0x7A717476


def write(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


# --- configuration file -------------------------------------------------
write("fuzz_config_file", "sample.conf",
      "# vekd configuration\nmini_est_interval = 1000\nwifi_threshold=1600\n"
      "min_ratio_change=2 # percent\nbest_est_cache_size=3\n"
      "vek_uid_list=10123,10124,,10125\ngaming_uid_list=10200\n"
      "num_interfaces=2\ninterface_0=wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1\n"
      "interface_1=rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1\n")
write("fuzz_config_file", "texts.conf",
      "protocols=http,https,quic\nports=80,443,8080\nrtt_server=probe.example\n"
      "gaming_whitelist=a,b\nnum_interfaces=-1\ninterface_3=x,1,t,m,0,0,0,\n"
      "estimate_pack_num=abc\n  ping_period_ms\t=\t250\n=\nkey_without_value\n")

# --- interface parameter strings ----------------------------------------
for i, text in enumerate([
        "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1",
        "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1",
        "wlan1,0,100,0x5C,0,5,-3,",
        "a,b,c,d,e,f,g,h,i",
        ",,,,,,,",
        "wlan0;id,0,wlan0,0x5A,1,10,0,10.1.0.1"]):
    write("fuzz_iface_params", "iface%d" % i, text)


# --- statistics files ---------------------------------------------------
def params(mask=0, turns=1, debug=False, step=0, values=()):
    b1 = (turns - 1) & 3 | (0x80 if debug else 0) | (step & 0x1F) << 2
    vals = list(values) + [0] * (12 - len(values))
    return struct.pack("<BB12h", mask, b1, *vals)


def ring(samples, write_index=None, magic=MAGIC):
    """samples: (timestamp, bytes, kind, flag) from slot 1 on."""
    out = bytearray(20480)
    struct.pack_into("<IIII", out, 0, magic, 0, write_index if write_index is not None else len(samples), 0)
    for i, (ts, n, kind, flag) in enumerate(samples):
        struct.pack_into("<QIHBB", out, 16 * (i + 1), ts, n, 0, kind, flag)
    # Trailing zeros add nothing the padding does not.
    end = 16 * (len(samples) + 1)
    return bytes(out[:end])


def steady(count, step_ms, nbytes, newest=NOW_MS, kind=2):
    return [(newest - (count - 1 - i) * step_ms, nbytes, kind, 0) for i in range(count)]


write("fuzz_stats_ring", "one_link", params(mask=1) + ring(steady(40, 20, 1500)))
write("fuzz_stats_ring", "two_links", params(mask=3, turns=3, step=10) +
      ring(steady(40, 20, 1500)) + ring(steady(40, 20, 300)))
three = [ring(steady(30, 25, n)) for n in (1400, 900, 200)]
size = max(len(r) for r in three)
write("fuzz_stats_ring", "three_links", params(mask=7, turns=4, debug=True, values=(0, 0, 0, 500)) +
      b"".join(r + bytes(size - len(r)) for r in three))
mixed = steady(20, 30, 1200)
mixed[5] = (mixed[5][0], mixed[5][1], 1, 0)
mixed[9] = (mixed[9][0], mixed[9][1], 2, 1)
write("fuzz_stats_ring", "spacers", params(mask=1) + ring(mixed))
write("fuzz_stats_ring", "no_magic", params(mask=1) + ring(steady(10, 20, 1500), magic=0))
wrapped = bytearray(20480)
struct.pack_into("<IIII", wrapped, 0, MAGIC, 0, 3, 0)
for slot, ts in ((1, NOW_MS - 40), (2, NOW_MS - 20), (3, NOW_MS), (1278, NOW_MS - 80), (1279, NOW_MS - 60)):
    struct.pack_into("<QIHBB", wrapped, 16 * slot, ts, 1000, 0, 2, 0)
write("fuzz_stats_ring", "wrapped", params(mask=1) + bytes(wrapped))


# --- binder frames ------------------------------------------------------
def cstring(s):
    b = s.encode() + b"\0"
    return b + bytes(-len(b) % 4)


def string16(s):
    u = s.encode("utf-16-le")
    b = struct.pack("<i", len(s)) + u + b"\0\0"
    return b + bytes(-len(b) % 4)


def token(descriptor):
    return struct.pack("<ii", 0, -1) + string16(descriptor)


def frame(code, parcel, flags=0):
    return struct.pack("<III", 8 + len(parcel), code, flags) + parcel


PING = 0x5F504E47
NTF = 0x5F4E5446
write("fuzz_binder_wire", "ping", frame(PING, b""))
write("fuzz_binder_wire", "interface", frame(NTF, b""))
write("fuzz_binder_wire", "echo", frame(1, token("vekd.fuzz") + struct.pack("<i", 7) + cstring("hello")))
write("fuzz_binder_wire", "string16", frame(2, string16("wlan0")))
write("fuzz_binder_wire", "mixed", frame(3, struct.pack("<qd", -5, 2.5) + struct.pack("<i", 3) + b"abc\0") +
      frame(4, b"1234", flags=1) + frame(PING, b""))
write("fuzz_binder_wire", "truncated", frame(1, token("vekd.fuzz"))[:-6])
write("fuzz_binder_wire", "too_long", struct.pack("<III", 2 << 20, 1, 0))


# Bits 8-9 of the first frame's flags: descriptors sent with its first byte.
def fd_object(index):
    return struct.pack("<IIIIQ", 0x66642A85, 0x17F, index, 0, 0)


DMP = 0x5F444D50
write("fuzz_binder_wire", "dump_with_fd",
      frame(DMP, fd_object(0) + struct.pack("<i", 1) + string16("--help"), flags=0x100))
write("fuzz_binder_wire", "two_fds", frame(5, fd_object(0) + fd_object(1), flags=0x200) + frame(PING, b""))
write("fuzz_binder_wire", "fd_without_object", frame(5, b"", flags=0x100))
write("fuzz_binder_wire", "object_without_fd", frame(5, fd_object(0)))


# --- vekd transactions --------------------------------------------------
def tx(code, parcel):
    return struct.pack("<BH", code - 1, len(parcel)) + parcel


vekd = token("vekd")
write("fuzz_vekd_transact", "configure",
      tx(4, vekd + struct.pack("<i", 0) + cstring("wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1")) +
      tx(4, vekd + struct.pack("<i", 1) + cstring("rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1")) +
      tx(5, vekd) + tx(3, vekd + struct.pack("<i", 1)) + tx(3, vekd + struct.pack("<i", 0)))
write("fuzz_vekd_transact", "uids",
      tx(1, vekd + struct.pack("<ii", 10123, 1)) + tx(1, vekd + struct.pack("<ii", 10123, 2)) +
      tx(2, vekd + struct.pack("<ii", 10123, 0)) + tx(1, vekd + struct.pack("<ii", -1, 7)))
write("fuzz_vekd_transact", "short", tx(1, vekd[:6]) + tx(4, vekd + struct.pack("<i", 9)))


# --- sock_diag dumps ----------------------------------------------------
def nlmsg(msg_type, body, flags=2):
    b = struct.pack("<IHHII", 16 + len(body), msg_type, flags, 0, 0) + body
    return b + bytes(-len(b) % 4)


def diag(family, state, uid, sport, dport, src, dst):
    sockid = struct.pack(">HH", sport, dport) + src.ljust(16, b"\0") + dst.ljust(16, b"\0") + \
        struct.pack("<III", 0, 1, 2)
    return nlmsg(20, struct.pack("<BBBB", family, state, 0, 0) + sockid + struct.pack("<IIIII", 0, 0, 0, uid, 1))


DONE = nlmsg(3, struct.pack("<i", 0))


def escape(b):
    return b.replace(b"\\", b"\\\\") + b"\\x"  # a lone backslash ends the string


def dumps_input(mode, dumps, answers, uid):
    """The byte layout FuzzedDataProvider reads: strings from the front,
    integers from the back (last byte first)."""
    front = b""
    back = [mode, len(dumps) - 1]
    for datagrams in dumps:
        back.append(len(datagrams))
        front += b"".join(escape(d) for d in datagrams)
    back.append(len(answers))
    front += b"".join(escape(a) for a in answers)
    back += list(struct.pack(">I", uid))
    return front + bytes(reversed(back))


v4 = diag(2, 1, 10123, 40000, 80, bytes([10, 1, 0, 2]), bytes([10, 9, 0, 1]))
lo = diag(2, 1, 10123, 40001, 80, bytes([127, 0, 0, 1]), bytes([127, 0, 0, 1]))
v6 = diag(10, 8, 10123, 40002, 443, bytes(15) + b"\x01", bytes(10) + b"\xff\xff" + bytes([1, 2, 3, 127]))
err = nlmsg(2, struct.pack("<i", -1) + nlmsg(21, b"")[:16])
write("fuzz_sockdiag_dump", "tcp", dumps_input(0, [[v4 + lo + DONE], [v6 + DONE]], [], 10123))
write("fuzz_sockdiag_dump", "udp_loopback", dumps_input(4 | 8 | 16, [[v4, lo + DONE], [DONE]], [err], 10123))
write("fuzz_sockdiag_dump", "error", dumps_input(1, [[err]], [], 0))
