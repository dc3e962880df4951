"""The testbed's HTTP server and traffic generator, talking over loopback."""
import json
import os
import re
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, HERE)
import httpd  # noqa: E402


class Resolve(unittest.TestCase):
    def test_plain_files_only_with_an_optional_time_limit(self):
        root = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, root)
        path = os.path.join(root, "big.bin")
        open(path, "wb").close()
        os.mkdir(os.path.join(root, "sub"))
        for target, expected in (("/big.bin", (path, None)), ("/big.bin?for=0.3", (path, 0.3)),
                                 ("/big.bin?for=1e9", (path, 600.0))):
            self.assertEqual(httpd.resolve(root, target), expected, target)
        for target in ("/", "/../etc/passwd", "/sub/../big.bin", "/.hidden", "/sub",
                       "/missing", "/big.bin?for=soon"):
            self.assertIsNone(httpd.resolve(root, target)[0], target)


class OverLoopback(unittest.TestCase):
    """A real server on 127.0.0.1 and the generator against it."""

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp()
        with open(os.path.join(cls.root, "big.bin"), "wb") as f:
            f.write(b"\0" * (4 << 20))
        with open(os.path.join(cls.root, "small.bin"), "wb") as f:
            f.write(b"x" * 12345)
        args = [sys.executable, os.path.join(HERE, "httpd.py"), "--root", cls.root,
                "--bind", "127.0.0.1", "--port", "0"]
        cls.tls = shutil.which("openssl") is not None
        if cls.tls:
            key, cert = os.path.join(cls.root, "key.pem"), os.path.join(cls.root, "cert.pem")
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                            "-days", "1", "-subj", "/CN=127.0.0.1", "-keyout", key,
                            "-out", cert], check=True, capture_output=True)
            args += ["--tls-port", "0", "--cert", cert, "--key", key]
        cls.server = subprocess.Popen(args, stdout=subprocess.PIPE, text=True)
        banner = cls.server.stdout.readline()
        ports = re.findall(r"port (\d+)|and (\d+)", banner)
        cls.port = int(ports[0][0])
        cls.tls_port = int(ports[1][1]) if cls.tls else None

    @classmethod
    def tearDownClass(cls):
        cls.server.terminate()
        cls.server.wait(5)
        cls.server.stdout.close()
        shutil.rmtree(cls.root)

    def get(self, target, secure=False):
        s = socket.create_connection(("127.0.0.1", self.tls_port if secure else self.port), 5)
        if secure:
            ctx = ssl.create_default_context()
            ctx.check_hostname = False
            ctx.verify_mode = ssl.CERT_NONE
            s = ctx.wrap_socket(s)
        s.sendall(("GET %s HTTP/1.0\r\n\r\n" % target).encode())
        data = b""
        while True:
            block = s.recv(65536)
            if not block:
                break
            data += block
        s.close()
        head, _, body = data.partition(b"\r\n\r\n")
        return head.decode(), body

    def traffic(self, *args):
        r = subprocess.run([sys.executable, os.path.join(HERE, "traffic.py")] + list(args) +
                           ["--server", "127.0.0.1", "--port", str(self.port)],
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 0, r.stderr)
        return [l for l in r.stdout.splitlines()]

    def test_whole_file_with_its_length_over_both_ports_and_404_otherwise(self):
        for secure in (False, True) if self.tls else (False,):
            head, body = self.get("/small.bin", secure)
            self.assertTrue(head.startswith("HTTP/1.0 200"), secure)
            self.assertIn("Content-Length: 12345", head)
            self.assertEqual(body, b"x" * 12345)
        self.assertTrue(self.get("/../small.bin")[0].startswith("HTTP/1.0 404"))

    def test_time_limited_download_ends_early_without_length(self):
        head, body = self.get("/big.bin?for=0")
        self.assertNotIn("Content-Length", head)
        self.assertLess(len(body), 4 << 20)

    def test_download_makes_new_connections_until_the_time_is_up(self):
        runs = [((), 0)]
        if self.tls:
            runs.append((("--https", "100", "--tls-port", str(self.tls_port)), 1))
        for extra, https in runs:
            out = json.loads(self.traffic("download", "--duration", "1", "--workers", "3",
                                          "--conn-time", "0.1", *extra)[-1])
            self.assertGreaterEqual(out["connections"], 6)
            self.assertEqual(out["failed"], 0)
            self.assertEqual(out["completed"], out["connected"])
            self.assertEqual(out["https"], out["connected"] * https)
            self.assertGreater(out["goodput_kbps"], 0)

    def test_hold_waits_and_is_not_reset_by_the_server(self):
        lines = self.traffic("hold", "--duration", "0.3")
        self.assertEqual(lines[0], "connected")
        out = json.loads(lines[-1])
        self.assertEqual((out["connected"], out["reset"], out["error"]), (True, False, "TIMEOUT"))

    def test_unreachable_server_is_counted_not_fatal(self):
        s = socket.socket()
        s.bind(("127.0.0.1", 0))
        closed = s.getsockname()[1]
        s.close()
        r = subprocess.run([sys.executable, os.path.join(HERE, "traffic.py"), "download",
                            "--server", "127.0.0.1", "--port", str(closed), "--duration", "0.5",
                            "--workers", "1"], capture_output=True, text=True, timeout=30)
        out = json.loads(r.stdout.splitlines()[-1])
        self.assertGreater(out["failed"], 0)
        self.assertEqual(out["connected"], 0)


if __name__ == "__main__":
    unittest.main()
