#!/usr/bin/env python3
"""Holds sockets of every UID the tests may enrol in the machine's own network
namespace while the suite runs, and fails when any of them was destroyed.

The daemon destroys the sockets of each UID it enrols; a test that lets it do
so outside a network namespace of its own would destroy these.

  host_sockets_guard.py hold [--uids FIRST-LAST] --ready FILE
      opens, per UID, a loopback TCP connection (both ends) and a connected
      UDP socket, writes FILE, then waits for SIGUSR1 (check and exit: 0 when
      every socket is alive, 1 otherwise) or SIGTERM (exit 0 unchecked).
Without root it cannot open sockets for other UIDs, and nothing the tests run
without root can destroy them: it says so and its check passes.
"""
import argparse
import os
import resource
import signal
import socket
import struct
import sys

TCP_ESTABLISHED = 1
# Every UID a test enrols (update-uid, vek_uid_list, gaming_uid_list) lies here.
DEFAULT_UIDS = "9990-10299"


def open_sockets(uid):
    """A loopback TCP pair and a connected UDP socket owned by `uid`."""
    os.seteuid(uid)  # a socket belongs to the filesystem UID that creates it
    try:
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        client = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        client.connect(listener.getsockname())
        accepted, _ = listener.accept()
        listener.close()
        udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        udp.bind(("127.0.0.1", 0))
        udp.connect(udp.getsockname())
    finally:
        os.seteuid(0)
    return [client, accepted, udp]


def alive(sock):
    if sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) != 0:
        return False
    if sock.type == socket.SOCK_STREAM:
        state = struct.unpack("B", sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1))[0]
        return state == TCP_ESTABLISHED
    try:
        sock.send(b"x")
        return sock.recv(1, socket.MSG_DONTWAIT) == b"x"
    except OSError:
        return False


def hold(args):
    first, last = (int(x) for x in args.uids.split("-"))
    held = {}
    if os.geteuid() == 0:
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        need = 3 * (last - first + 1) + 64
        if soft < need:
            resource.setrlimit(resource.RLIMIT_NOFILE, (need, max(hard, need)))
        held = {uid: open_sockets(uid) for uid in range(first, last + 1)}
        print("host sockets guard: holding %d sockets of UIDs %d-%d" % (3 * len(held), first, last), flush=True)
    else:
        print("host sockets guard: not root, nothing to hold (without root no test can destroy sockets)",
              flush=True)
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR1, signal.SIGTERM})
    with open(args.ready, "w") as f:
        f.write("ready\n")
    if signal.sigwait({signal.SIGUSR1, signal.SIGTERM}) == signal.SIGTERM:
        return 0
    dead = sorted(uid for uid, socks in held.items() if not all(alive(s) for s in socks))
    if dead:
        print("host sockets guard: FAIL: sockets of UIDs %s were destroyed in the machine's own network namespace"
              % ", ".join(map(str, dead)), flush=True)
        return 1
    print("host sockets guard: every held socket is alive", flush=True)
    return 0


def main(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = p.add_subparsers(dest="cmd", required=True)
    h = sub.add_parser("hold", help="hold the sockets until SIGUSR1 (check) or SIGTERM")
    h.add_argument("--uids", default=DEFAULT_UIDS, help="FIRST-LAST (default %s)" % DEFAULT_UIDS)
    h.add_argument("--ready", required=True, help="file written once the sockets are open")
    return hold(p.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
