#!/usr/bin/env python3
"""Serves the files of one directory over HTTP (and HTTPS when given a
certificate) for the testbed's server namespace.

One thread per connection, one request per connection: the clients open a
new connection for every download, which is what the daemon spreads.
"GET /name?for=S" sends the file for at most S seconds and then closes: a
download of a fixed time keeps a link busy whatever its rate, and ending it
on the server side wastes nothing that is already queued towards the client.
Broken connections are normal here and stay silent.
"""
import argparse
import os
import socket
import ssl
import sys
import threading
import time
import urllib.parse

CHUNK = 4096
MAX_REQUEST = 8192
TCP_NOTSENT_LOWAT = getattr(socket, "TCP_NOTSENT_LOWAT", 25)


def read_request(conn):
    data = b""
    while b"\r\n\r\n" not in data and b"\n\n" not in data:
        if len(data) > MAX_REQUEST:
            return None
        part = conn.recv(1024)
        if not part:
            return None
        data += part
    line = data.split(b"\n", 1)[0].decode("latin-1").strip()
    fields = line.split()
    if len(fields) < 2:
        return None
    return fields[0], fields[1]


def resolve(root, target):
    """(path, seconds or None) of a request target; path None when the target
    is not a plain file of the served directory (no traversal)."""
    name, _, query = target.partition("?")
    name = name.lstrip("/")
    seconds = None
    for value in urllib.parse.parse_qs(query).get("for", [])[:1]:
        try:
            seconds = max(0.0, min(float(value), 600.0))
        except ValueError:
            return None, None
    if not name or "/" in name or name.startswith("."):
        return None, None
    path = os.path.join(root, name)
    return (path if os.path.isfile(path) else None), seconds


def serve(conn, root):
    try:
        conn.settimeout(30)
        request = read_request(conn)
        if request is None:
            return
        method, target = request
        path, seconds = resolve(root, target) if method in ("GET", "HEAD") else (None, None)
        if path is None:
            conn.sendall(b"HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n"
                         b"Connection: close\r\n\r\n")
            return
        head = "HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\n"
        if seconds is None:
            head += "Content-Length: %d\r\n" % os.path.getsize(path)
        conn.sendall((head + "Connection: close\r\n\r\n").encode())
        if method == "HEAD":
            return
        if seconds is not None:
            # Keep little unsent data in the socket so that the time limit
            # is close to what reaches the wire.
            try:
                conn.setsockopt(socket.IPPROTO_TCP, TCP_NOTSENT_LOWAT, CHUNK)
            except OSError:
                pass
            stop_at = time.monotonic() + seconds
        with open(path, "rb") as f:
            while seconds is None or time.monotonic() < stop_at:
                block = f.read(CHUNK)
                if not block:
                    break
                conn.sendall(block)
    except (OSError, ssl.SSLError):
        pass
    finally:
        try:
            conn.close()
        except OSError:
            pass


def listen(address, port):
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind((address, port))
    s.listen(512)
    return s


def accept_loop(sock, root, tls):
    while True:
        try:
            conn, _ = sock.accept()
        except OSError:
            continue
        if tls is not None:
            # The handshake runs in the connection's thread so that a slow
            # client cannot hold up the others.
            def wrapped(c=conn):
                try:
                    s = tls.wrap_socket(c, server_side=True)
                except (OSError, ssl.SSLError):
                    c.close()
                    return
                serve(s, root)
            target = wrapped
        else:
            def target(c=conn):
                serve(c, root)
        threading.Thread(target=target, daemon=True).start()


def main(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--root", required=True, help="directory whose files are served")
    p.add_argument("--bind", default="0.0.0.0", help="address to listen on")
    p.add_argument("--port", type=int, default=80, help="0: any free port")
    p.add_argument("--tls-port", type=int, default=443, help="0: any free port")
    p.add_argument("--cert", help="PEM certificate; enables HTTPS on --tls-port")
    p.add_argument("--key", help="PEM private key for --cert")
    args = p.parse_args(argv)

    plain = listen(args.bind, args.port)
    threads = [threading.Thread(target=accept_loop, daemon=True, args=(plain, args.root, None))]
    banner = "httpd: serving %s on port %d" % (args.root, plain.getsockname()[1])
    if args.cert:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.cert, args.key)
        secure = listen(args.bind, args.tls_port)
        threads.append(threading.Thread(target=accept_loop, daemon=True,
                                        args=(secure, args.root, tls)))
        banner += " and %d (TLS)" % secure.getsockname()[1]
    for t in threads:
        t.start()
    print(banner, flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except KeyboardInterrupt:
        pass
