"""The testbed's HTTP server and traffic generator, talking over loopback."""
import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, HERE)
import httpd  # noqa: E402


class OverLoopback(unittest.TestCase):
    @classmethod
    def setUpClass(cls):  # a real server on 127.0.0.1 and its TLS port
        cls.root = cls.enterClassContext(tempfile.TemporaryDirectory())
        pathlib.Path(cls.root, "big.bin").write_bytes(b"\0" * (4 << 20))
        pathlib.Path(cls.root, "small.bin").write_bytes(b"x" * 12345)
        os.mkdir(os.path.join(cls.root, "sub"))
        key, cert = os.path.join(cls.root, "key.pem"), os.path.join(cls.root, "cert.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1",
                        "-subj", "/CN=127.0.0.1", "-keyout", key, "-out", cert], check=True, capture_output=True)
        cls.server = cls.enterClassContext(subprocess.Popen(
            [sys.executable, os.path.join(HERE, "httpd.py"), "--root", cls.root, "--bind", "127.0.0.1", "--port", "0",
             "--tls-port", "0", "--cert", cert, "--key", key], stdout=subprocess.PIPE, text=True))
        cls.addClassCleanup(cls.server.terminate)
        cls.port, cls.tls_port = map(int, re.search(r"port (\d+) and (\d+)", cls.server.stdout.readline()).groups())

    def get(self, target):
        with socket.create_connection(("127.0.0.1", self.port), 5) as s, s.makefile("rb") as f:
            s.sendall(("GET %s HTTP/1.0\r\n\r\n" % target).encode())
            head, _, body = f.read().partition(b"\r\n\r\n")
        return head.decode(), body

    def test_plain_files_only_whole_or_for_a_time(self):
        big = os.path.join(self.root, "big.bin")
        for target, expected in (("/big.bin", (big, None)), ("/big.bin?for=0.3", (big, 0.3)),
                                 ("/big.bin?for=1e9", (big, 600.0))):
            self.assertEqual(httpd.resolve(self.root, target), expected, target)
        for target in ("/", "/../etc/passwd", "/sub/../big.bin", "/.hidden", "/sub", "/missing", "/big.bin?for=soon"):
            self.assertEqual(httpd.resolve(self.root, target), (None, None), target)
        head, body = self.get("/small.bin")
        self.assertEqual((head.split("\r\n")[0], "Content-Length: 12345" in head, body), ("HTTP/1.0 200 OK", True, b"x" * 12345))
        self.assertTrue(self.get("/../small.bin")[0].startswith("HTTP/1.0 404"))
        head, body = self.get("/big.bin?for=0")
        self.assertEqual(("Content-Length" in head, len(body) < 4 << 20), (False, True))  # cut short, no length

    def test_generator_counts_connections_resets_and_failures(self):
        closed = self.enterContext(socket.socket())
        closed.bind(("127.0.0.1", 0))
        whole = ["download", "--workers", "3", "--conn-time", "0.1"]
        ran = lambda o: o["failed"] == 0 and o["connections"] >= 6 and o["goodput_kbps"] > 0  # noqa: E731
        for args, holds in [  # (arguments, what its first line and its final JSON line must hold)
            (whole, lambda first, o: ran(o) and o["completed"] == o["connected"] and o["https"] == 0),
            (whole + ["--https", "100", "--tls-port", str(self.tls_port)], lambda first, o: ran(o) and o["completed"] == o["https"]),
            (["hold", "--duration", "0.3"], lambda first, o: first == "connected" and o["error"] == "TIMEOUT" and not o["reset"]),
            (["download", "--workers", "1", "--port", str(closed.getsockname()[1])], lambda f, o: o["failed"] and not o["connected"]),
        ]:
            r = subprocess.run([sys.executable, os.path.join(HERE, "traffic.py"), "--server", "127.0.0.1",
                                "--port", str(self.port), "--duration", "1"] + args, capture_output=True, text=True, timeout=30)
            lines = r.stdout.splitlines()
            self.assertTrue(holds(lines[0], json.loads(lines[-1])), (args, r.stdout, r.stderr))
