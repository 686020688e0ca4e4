#!/usr/bin/env python3
"""OS images from the network, as a user meets them: hvtool pulls from
Debian's nginx (range requests, TLS with a certificate made here) and from a
server of this test's own that stages what nginx cannot (a cut, a stall, too
many bytes, a redirect loop). Both listen on 127.0.0.1 only."""
import argparse
import hashlib
import http.server
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

HVTOOL = None
UUID = "{0c0ffee0-0000-4000-8000-%012d}"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_ova(directory):
    """A real OVA: two vmdk disks from qemu-img and random padding, 8 MiB."""
    members = directory / "members"
    members.mkdir()
    for disk in ("system", "data"):
        subprocess.run(["qemu-img", "create", "-q", "-f", "vmdk", str(members / (disk + ".vmdk")), "16M"], check=True)
    (members / "padding").write_bytes(os.urandom(8 << 20))
    subprocess.run(["tar", "--format=ustar", "-C", str(members), "-cf", str(directory / "t.ova"), "padding",
                    "system.vmdk", "data.vmdk"], check=True)
    return (directory / "t.ova").read_bytes()


def record(number, url, data, **changes):
    r = {"arch": "x86_64", "build_date": "2026-01-01T00:00:00Z", "image_hash": hashlib.sha256(data).hexdigest(),
         "image_size_bytes": len(data), "image_uri": url, "image_version": "1.0.%d" % number,
         "name": "Image %d" % number, "os_version": {"os_version": "11.0.0", "sdk_version": 30}, "source": "USER",
         "supported_form_factors": ["PHONE"], "uuid": UUID % number, "version": "1.1.0"}
    r.update(changes)
    return r


class Faults(http.server.BaseHTTPRequestHandler):
    """/ok, /cut (the first answer ends half-way; /short without saying its
    length), /stall (half, then
    nothing), /big (more bytes than the record declares), /loop (redirects
    to itself) and /doc/NAME (the documents the test put there)."""
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        kind, _, name = self.path.strip("/").partition("/")
        if kind == "loop":
            self.send_response(302)
            self.send_header("Location", self.path)
            self.send_header("Content-Length", "0")
            return self.end_headers()
        if kind == "doc":
            return self.send(200, self.server.docs[name], len(self.server.docs[name]))
        if kind not in ("ok", "cut", "short", "stall", "big"):
            return self.send_error(404)
        data = self.server.ova + (b"x" * 4096 if kind == "big" else b"")
        start = int(self.headers.get("Range", "bytes=0-")[6:].rstrip("-"))
        body = data[start:] if self.headers.get("If-Range") == '"v1"' or start == 0 else data
        if len(body) == len(data):
            start = 0
        if kind in ("cut", "short", "stall") and start == 0:
            body = body[:len(data) // 2]
        self.server.served.append((kind, start, len(body)))
        self.send(206 if start else 200, body, None if kind in ("big", "short") else len(data) - start, start, len(data))
        if kind == "stall":
            time.sleep(5)

    def send(self, status, body, length, start=0, total=0):
        self.send_response(status)
        self.send_header("ETag", '"v1"')
        if status == 206:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, total - 1, total))
        if length is not None:
            self.send_header("Content-Length", str(length))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()
        self.close_connection = True


class Pull(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.root = Path(tempfile.mkdtemp(prefix="hv-pull-"))
        cls.ova = make_ova(cls.root)
        cls.faults = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Faults)
        cls.faults.ova, cls.faults.docs, cls.faults.served = cls.ova, {}, []
        cls.faults.daemon_threads = True
        cls.faults.handle_error = lambda *args: None  # clients that hang up early are the point
        threading.Thread(target=cls.faults.serve_forever, daemon=True).start()
        cls.start_nginx()

    @classmethod
    def start_nginx(cls):
        web = cls.root / "web"
        (web / "slow").mkdir(parents=True)
        for path in (web / "t.ova", web / "slow" / "u.ova", web / "slow" / "t.ova"):
            path.write_bytes(cls.ova)
        cls.cert = cls.root / "cert.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                        "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", str(cls.root / "key.pem"),
                        "-out", str(cls.cert)], check=True, capture_output=True)
        cls.https = "https://127.0.0.1:%d" % free_port()
        (cls.root / "nginx.conf").write_text("""
daemon off; master_process off; pid {r}/nginx.pid; error_log {r}/error.log;
events {{}}
http {{
  log_format ranges '$status $body_bytes_sent "$http_range" $uri';
  access_log {r}/access.log ranges;
  client_body_temp_path {r}/t1; proxy_temp_path {r}/t2; fastcgi_temp_path {r}/t3;
  uwsgi_temp_path {r}/t4; scgi_temp_path {r}/t5;
  server {{
    listen 127.0.0.1:{port} ssl; ssl_certificate {r}/cert.pem; ssl_certificate_key {r}/key.pem;
    root {r}/web; location /slow/ {{ limit_rate 2m; }}
  }}
}}""".format(r=cls.root, port=cls.https.rsplit(":", 1)[1]))
        cls.nginx = subprocess.Popen(["nginx", "-c", str(cls.root / "nginx.conf"), "-p", str(cls.root)])
        for _ in range(100):
            try:
                socket.create_connection(("127.0.0.1", int(cls.https.rsplit(":", 1)[1])), 1).close()
                break
            except OSError:
                time.sleep(0.05)

    @classmethod
    def tearDownClass(cls):
        cls.nginx.terminate()
        cls.nginx.wait(10)
        cls.faults.shutdown()
        cls.faults.server_close()
        shutil.rmtree(cls.root)

    def setUp(self):
        self.home = Path(tempfile.mkdtemp(dir=self.root, prefix="home-"))
        self.ova_dir = self.home / ".Corbelwick" / "Halvistrom" / "ova"
        self.env = dict(os.environ, HV_HOME=str(self.home))

    def hv(self, *args, expect=0, **env):
        proc = subprocess.run([HVTOOL, *args], env=dict(self.env, **env), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=120)
        self.assertEqual(proc.returncode, expect, "%s\n%s%s" % (args, proc.stdout, proc.stderr))
        return proc

    def publish(self, name, content):
        self.faults.docs[name] = content if isinstance(content, bytes) else json.dumps(content).encode()
        return "http://127.0.0.1:%d/doc/%s" % (self.faults.server_address[1], name)

    def test_real_server_tls_kill_resume_and_create(self):
        (self.root / "web" / "t.json").write_text(json.dumps(record(1, self.https + "/t.ova", self.ova)))
        refused = self.hv("image", "add", self.https + "/t.json", expect=1)
        self.assertRegex(refused.stderr, "the TLS connection for '%s/t.json' failed: .*; a private mirror's certificate "
                         "authority can be named in the setting downloads.ca_file" % self.https)
        self.hv("settings", "set", "downloads.ca_file", str(self.cert))

        # Ctrl-C, then a kill, each half-way, leave the part, and the next pull
        # asks nginx for the rest.
        (self.root / "web" / "slow" / "t.json").write_text(json.dumps(record(1, self.https + "/slow/t.ova", self.ova)))
        part = self.ova_dir / "t.ova.part"
        for signal, size in ((2, 1 << 20), (9, 2 << 20)):
            stopped = subprocess.Popen([HVTOOL, "image", "add", self.https + "/slow/t.json"], env=self.env,
                                       stderr=subprocess.PIPE, text=True)
            while not part.exists() or part.stat().st_size < size:
                time.sleep(0.05)
            stopped.send_signal(signal)
            if signal == 2:
                self.assertEqual(stopped.wait(), 1)
                self.assertRegex(stopped.stderr.read(), r"was cancelled; the .* MiB fetched so far are kept in '%s'" % part)
            stopped.wait()
            stopped.stderr.close()
        self.assertFalse((self.ova_dir / "t.ova").exists())
        resumed = self.hv("image", "add", self.https + "/slow/t.json")
        self.assertRegex(resumed.stdout, r"registered image 'Image 1' \(.*\): 8\.1 MiB in .* s, resumed at \d")
        status, sent, asked, uri = (self.root / "access.log").read_text().splitlines()[-1].split(" ")
        self.assertEqual((status, uri), ("206", "/slow/t.ova"))
        self.assertLess(int(sent), len(self.ova) - (2 << 20))
        self.assertEqual((self.ova_dir / "t.ova").read_bytes(), self.ova)

        # A registered image whose OVA is elsewhere is pulled for a device on
        # demand; a pull at the same time waits for that download.
        local = self.root / ("u-%s.json" % self.home.name)
        local.write_text(json.dumps(record(2, self.https + "/slow/u.ova", self.ova)))
        uuid = json.loads(self.hv("image", "add", str(local), "--format", "json").stdout)["uuid"]
        self.hv("profile", "create", "p", "--ram", "256")
        missing = self.hv("device", "create", "d", "--image", uuid, "--profile", "p", expect=3)
        self.assertIn("is not on this machine: '%s'; download it with --pull" % (self.ova_dir / "u.ova"), missing.stderr)
        both = [subprocess.Popen([HVTOOL, *args], env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
                for args in (["device", "create", "d", "--image", uuid, "--profile", "p", "--pull"],
                             ["image", "pull", uuid])]
        self.assertEqual([p.wait(60) for p in both], [0, 0])
        self.assertEqual((self.root / "access.log").read_text().count(" /slow/u.ova"), 1)
        self.assertEqual((self.ova_dir / "u.ova").read_bytes(), self.ova)

    def test_faults_are_refused_and_leave_nothing(self):
        port = self.faults.server_address[1]
        url = "http://127.0.0.1:%d/%%s/t.ova" % port
        bad_hash = record(1, url % "ok", self.ova, image_hash="0" * 64)
        cases = [
            ("checksum", bad_hash, {}, "has sha-256 %s, not %s as declared" % (hashlib.sha256(self.ova).hexdigest(),
                                                                              "0" * 64)),
            ("trigger", record(1, url % "ok", self.ova), {"HV_TRIGGER_ERROR": "corrupteddownload"}, "as declared"),
            ("size", record(1, url % "ok", self.ova, image_size_bytes=len(self.ova) + 1), {},
             "is %d bytes on the server, not the %d declared" % (len(self.ova), len(self.ova) + 1)),
            ("404", record(1, url % "gone", self.ova), {}, "the server answered 404 Not Found for '%s'" % (url % "gone")),
            ("big", record(1, url % "big", self.ova), {}, "the server sent more than the %d bytes" % len(self.ova)),
            ("loop", record(1, url % "loop", self.ova), {}, "redirects more than 5 times"),
            ("escape", record(1, "http://127.0.0.1:%d/ok/%%2e%%2e" % port, self.ova), {}, "names no file that can go in"),
            ("stall", record(1, url % "stall", self.ova), {}, "nothing arrived from '%s' for 1 s" % (url % "stall")),
        ]
        self.hv("settings", "set", "downloads.stall_timeout", "1")
        for name, rec, env, message in cases:
            with self.subTest(name):
                failed = self.hv("image", "add", self.publish(name + ".json", rec), expect=1, **env)
                self.assertIn(message, failed.stderr)
                self.assertFalse((self.ova_dir / "t.ova").exists())
                self.assertEqual(json.loads(self.hv("image", "list", "--format", "json").stdout), [])
                # Only an interrupted transfer keeps its bytes, for the next pull.
                self.assertEqual((self.ova_dir / "t.ova.part").exists(), name == "stall")
        self.hv("image", "add", "ftp://127.0.0.1/t.json", expect=2)

        # A connection cut half-way is resumed: the second answer brings only the rest.
        del self.faults.served[:]
        self.hv("image", "add", self.publish("cut.json", record(1, url % "cut", self.ova)))
        self.assertEqual(self.faults.served, [("cut", 0, len(self.ova) // 2),
                                              ("cut", len(self.ova) // 2, len(self.ova) - len(self.ova) // 2)])
        self.assertEqual((self.ova_dir / "t.ova").read_bytes(), self.ova)
        self.hv("image", "add", self.publish("short.json", record(2, url.replace("t.ova", "s.ova") % "short", self.ova)))
        self.assertEqual(self.faults.served[2:], [("short", 0, len(self.ova) // 2),
                                                  ("short", len(self.ova) // 2, len(self.ova) - len(self.ova) // 2)])

    def test_catalogue_and_ova_address(self):
        port = self.faults.server_address[1]
        good = record(3, "http://127.0.0.1:%d/ok/c.ova" % port, self.ova, name="Catalogued")
        self.hv("settings", "set", "images.catalogue_url", self.publish("catalogue.json", [
            good, record(4, "ftp://127.0.0.1/x.ova", self.ova, name="Elsewhere"), "not a record"]))
        listed = self.hv("image", "available")
        self.assertIn("Catalogued", listed.stdout)
        self.assertIn("skipped record 2 of the catalogue (Elsewhere)", listed.stderr)
        self.assertIn("skipped record 3 of the catalogue (no name)", listed.stderr)

        self.hv("image", "add", "http://127.0.0.1:%d/ok/o.ova" % port, "--android", "11.0")
        self.assertEqual(json.loads(self.hv("image", "list", "--format", "json").stdout)[0]["image_uri"],
                         "http://127.0.0.1:%d/ok/o.ova" % port)
        self.hv("image", "pull", "Catalogued")
        self.assertEqual(json.loads(self.hv("image", "available", "--format", "json").stdout)[0]["registered"], True)

        self.hv("settings", "set", "images.catalogue_url", self.publish("broken.json", b"<html>"))
        self.assertIn("is not a JSON array of image records", self.hv("image", "available", expect=1).stderr)

    @unittest.skipIf(os.geteuid() != 0, "mounting a tmpfs to fill up needs root")
    def test_full_disk(self):
        port = self.faults.server_address[1]
        self.hv("settings", "list")  # makes the OVA directory
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", str(self.ova_dir)], check=True)
        try:
            declared = self.publish("c.json", record(5, "http://127.0.0.1:%d/ok/c.ova" % port, self.ova))
            full = self.hv("image", "add", declared, expect=1)
            self.assertIn("not enough free space in '%s': 'c.ova' needs 8.1 MiB more" % self.ova_dir, full.stderr)
            # A file of no declared size fills the disk: its part goes at once.
            filled = self.hv("image", "add", "http://127.0.0.1:%d/big/o.ova" % port, "--android", "11.0", expect=1)
            self.assertIn("No space left on device; the partial file was removed", filled.stderr)
            self.assertEqual(sorted(p.name for p in self.ova_dir.iterdir()), ["c.ova.lock", "o.ova.lock"])
        finally:
            subprocess.run(["umount", str(self.ova_dir)], check=True)
        self.assertEqual(json.loads(self.hv("image", "list", "--format", "json").stdout), [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--hvtool", required=True)
    options, rest = parser.parse_known_args()
    HVTOOL = options.hvtool
    unittest.main(argv=[sys.argv[0]] + rest)
