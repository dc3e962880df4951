#!/usr/bin/env python3
"""Per-link DNS servers of the testbed, and queries as an application.

  serve ADDR DEV  answers every A query with ADDR, its own address, taking
                  queries only from link DEV: an answer tells both the server
                  and the link a query went over
  ask SERVER UID  one query to SERVER:53 as UID (three tries, 1.5 s each);
                  prints the address answered, or "none"
"""
import os
import socket
import struct
import sys

QUESTION = b"\x05probe\x04vekd\x04test\x00" + struct.pack("!HH", 1, 1)  # probe.vekd.test A IN


def serve(addr, dev):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, dev.encode())
    s.bind((addr, 53))
    answer = struct.pack("!HHHIH", 0xC00C, 1, 1, 0, 4) + socket.inet_aton(addr)
    while True:
        query, peer = s.recvfrom(512)
        if len(query) < 12:
            continue
        qid, = struct.unpack("!H", query[:2])
        header = struct.pack("!HHHHHH", qid, 0x8180, 1, 1, 0, 0)
        s.sendto(header + query[12:12 + len(QUESTION)] + answer, peer)


def ask(server, uid):
    os.setuid(uid)  # the packet filter matches the socket's owner
    for qid in (1, 2, 3):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.settimeout(1.5)
        try:
            s.sendto(struct.pack("!HHHHHH", qid, 0x0100, 1, 0, 0, 0) + QUESTION, (server, 53))
            reply = s.recv(512)
            if reply[:2] == struct.pack("!H", qid) and len(reply) >= 4:
                return socket.inet_ntoa(reply[-4:])
        except OSError:
            pass
        finally:
            s.close()
    return "none"


def main(argv):
    if len(argv) == 3 and argv[0] == "serve":
        serve(argv[1], argv[2])
    elif len(argv) == 3 and argv[0] == "ask":
        print(ask(argv[1], int(argv[2])))
    else:
        print(__doc__, file=sys.stderr if argv[:1] != ["--help"] else sys.stdout)
        return 0 if argv[:1] == ["--help"] else 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
