#!/usr/bin/env python3
"""Traffic of one application (one UID) for the testbed.

download: parallel workers that each open a new connection, download what
the server sends in --conn-time seconds (it ends the download), and start
over, until --duration is up. Each link thus keeps several downloads in
flight whatever share of connections it gets, so that every link stays busy.

hold: opens one connection, sends half a request and waits; prints
"connected" once the connection is up, then reports whether it was reset.

Started as root (it has to enter the UID); drops to --uid before any traffic.
The result is one JSON line on standard output.
"""
import argparse
import errno
import json
import os
import random
import socket
import ssl
import sys
import threading
import time


def drop_privileges(uid):
    if uid is None:
        return
    os.setgroups([])
    os.setgid(uid)
    os.setuid(uid)


class Totals:
    def __init__(self):
        self.lock = threading.Lock()
        self.connections = 0   # connection attempts
        self.connected = 0
        self.secure = 0        # of those, over TLS
        self.failed = 0
        self.completed = 0     # downloads that reached the end of the file
        self.bytes = 0
        self.conn_seconds = 0.0  # summed lifetime of the connections made

    def add(self, **kw):
        with self.lock:
            for k, v in kw.items():
                setattr(self, k, getattr(self, k) + v)


def one_download(args, totals, stop_at, tls):
    totals.add(connections=1)
    secure = tls is not None and random.random() * 100 < args.https
    # The server ends the download; this only guards against a stuck one.
    deadline = time.monotonic() + args.conn_time + 15
    try:
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if args.rcvbuf:
            # A small receive window keeps each download's burst small, so
            # that many downloads can share a slow link without losses.
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, args.rcvbuf)
        s.settimeout(5)
        s.connect((args.server, args.tls_port if secure else args.port))
        if secure:
            s = tls.wrap_socket(s)
    except OSError:
        s.close()
        totals.add(failed=1)
        time.sleep(0.2)  # don't spin on a dead link
        return
    totals.add(connected=1, secure=1 if secure else 0)
    began = time.monotonic()
    try:
        s.sendall(("GET /%s?for=%g HTTP/1.0\r\nHost: %s\r\n\r\n"
                   % (args.path, args.conn_time, args.server)).encode())
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                break
            s.settimeout(left)
            try:
                block = s.recv(65536)
            except socket.timeout:
                break
            if not block:
                totals.add(completed=1)
                break
            totals.add(bytes=len(block))  # as it arrives: the progress lines follow it
    except OSError:
        totals.add(failed=1)
    finally:
        s.close()
        totals.add(conn_seconds=time.monotonic() - began)


def worker(args, totals, stop_at, tls):
    while time.monotonic() < stop_at:
        with totals.lock:
            if args.max_conns and totals.connections >= args.max_conns:
                return
        one_download(args, totals, stop_at, tls)


def report_progress(args, totals):
    """Appends the bytes received so far to a timeline, once a second."""
    while True:
        with totals.lock:
            got = totals.bytes
        args.progress.write(json.dumps({"kind": "progress", "name": args.name,
                                        "t": time.time(), "bytes": got}) + "\n")
        time.sleep(1.0)


def run_download(args):
    totals = Totals()
    tls = None
    if args.https > 0:
        # The testbed's server has a throw-away certificate.
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        tls.check_hostname = False
        tls.verify_mode = ssl.CERT_NONE
    start = time.monotonic()
    stop_at = start + args.duration
    threads = [threading.Thread(target=worker, args=(args, totals, stop_at, tls), daemon=True)
               for _ in range(args.workers)]
    for t in threads:
        t.start()
    if args.progress:
        threading.Thread(target=report_progress, args=(args, totals), daemon=True).start()
    for t in threads:
        t.join(args.duration + args.conn_time + 10)
    seconds = time.monotonic() - start
    return {
        "uid": args.uid, "connections": totals.connections, "connected": totals.connected,
        "https": totals.secure,
        "failed": totals.failed, "completed": totals.completed, "bytes": totals.bytes,
        "seconds": round(seconds, 3),
        "mean_conn_seconds": round(totals.conn_seconds / totals.connected, 3)
        if totals.connected else None,
        # kbit/s with 1 kbit = 1024 bit, the unit of the daemon's estimates
        "goodput_kbps": round(totals.bytes * 8 / 1024 / seconds, 1) if seconds > 0 else 0.0,
    }


def run_hold(args):
    result = {"uid": args.uid, "connected": False, "reset": False, "error": None,
              "after": None}
    try:
        s = socket.create_connection((args.server, args.port), timeout=5)
    except OSError as e:
        result["error"] = errno.errorcode.get(e.errno, str(e))
        return result
    result["connected"] = True
    s.sendall(b"GET /")  # half a request: the server waits for the rest
    print("connected", flush=True)
    start = time.monotonic()
    s.settimeout(args.duration)
    try:
        data = s.recv(1)
        result["error"] = "EOF" if not data else "DATA"
    except socket.timeout:
        result["error"] = "TIMEOUT"
    except OSError as e:
        result["error"] = errno.errorcode.get(e.errno, str(e))
        result["reset"] = e.errno in (errno.ECONNABORTED, errno.ECONNRESET)
    result["after"] = round(time.monotonic() - start, 3)
    s.close()
    return result


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("mode", choices=["download", "hold"])
    p.add_argument("--server", required=True, help="server address")
    p.add_argument("--port", type=int, default=80)
    p.add_argument("--tls-port", type=int, default=443)
    p.add_argument("--https", type=float, default=0.0,
                   help="percentage of downloads over TLS (to --tls-port)")
    p.add_argument("--path", default="big.bin", help="file to download")
    p.add_argument("--uid", type=int, help="UID to run as (needs root)")
    p.add_argument("--progress", help="timeline to append the bytes received to, each second")
    p.add_argument("--name", default="app", help="name of the progress lines")
    p.add_argument("--workers", type=int, default=16, help="parallel downloads")
    p.add_argument("--duration", type=float, default=30.0,
                   help="seconds of traffic (hold: seconds to wait for a reset)")
    p.add_argument("--conn-time", type=float, default=1.0,
                   help="seconds the server sends on one connection")
    p.add_argument("--rcvbuf", type=int, default=4096,
                   help="receive buffer of each download, bytes (0: system default)")
    p.add_argument("--max-conns", type=int, default=100000,
                   help="stop after this many connections (0: no limit)")
    args = p.parse_args(argv)
    if args.workers < 1 or args.duration <= 0 or args.conn_time <= 0:
        p.error("--workers, --duration and --conn-time must be positive")
    return args


def main(argv):
    args = parse_args(argv)
    # Opened before the privileges go: the timeline belongs to root.
    args.progress = open(args.progress, "a", buffering=1) if args.progress else None
    drop_privileges(args.uid)
    result = run_download(args) if args.mode == "download" else run_hold(args)
    print(json.dumps(result), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
