"""HTTPS: what real clients get, versions and ciphers, certificates that change, handshakes that hang."""
import concurrent.futures
import http.client
import importlib.util
import json
import pathlib
import re
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import certificates
import client
import harness

INFO = "/KAVRO/System/deviceInfo"


def run(*command, **more):
    return subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          timeout=100, **more)


class TlsTest(harness.StreamTest):
    https = {}
    http = {}
    more = {}

    @classmethod
    def setUpClass(cls):
        cls.authority = certificates.Authority()
        cls.addClassCleanup(cls.authority.close)
        cls.identity = cls.authority.issue("server")
        cls.secure_port = harness.free_ports(1)[0]
        cls.sections = {"http": cls.http, "https": {
            "port": cls.secure_port, "certificate": str(cls.identity[0]),
            "key": str(cls.identity[1]), **cls.settings()}, **cls.more}
        super().setUpClass()

    @classmethod
    def settings(cls):
        return cls.https

    def secure(self, identity=None, version=None, **more):
        one = client.Client(self.secure_port, "admin", harness.PASSWORD,
                            tls=self.authority.client(identity, version), **more)
        self.addCleanup(one.close)
        return one

    def s_client(self, *options, said=""):
        """What openssl says of a connection, which ends with its input."""
        return run("openssl", "s_client", "-connect", f"127.0.0.1:{self.secure_port}", "-CAfile",
                   self.authority.certificate, *options, input=said)


class Https(TlsTest):
    https = {"handshake_seconds": 3}

    def test_it_carries_what_http_does(self):
        one = self.secure()
        self.assertEqual(one.get(INFO).xml().tag, "DeviceInfo")
        self.assertEqual(harness.upload(one).status, 200)
        port = one.get("/KAVRO/Security/adminAccesses").xml()
        told = {each.findtext("protocol"): each.findtext("portNo") for each in port}
        self.assertEqual(told["HTTPS"], str(self.secure_port))
        self.devices.fault(1, kind="reply", body=json.dumps({"a": "x" * 3_000_000}))
        self.assertEqual(len(one.get("/KAVRO/Any/Long?format=json").body), 3_000_000 + 9,
                         "passed through")

    def test_alert_streams(self):
        stream = client.AlertStream(self.secure_port, "admin", harness.PASSWORD,
                                    tls=self.authority.client())
        self.addCleanup(stream.close)
        self.wait_for_feed()
        for name in ("one", "two"):
            self.push(channelName=name)
            self.assertIn(name.encode(), self.named(stream, name)[1])

    def test_versions_ciphers_renegotiation_and_compression(self):
        weak = "DEFAULT:@SECLEVEL=0"
        for accepted, options in (
                (True, ["-tls1_3"]), (True, ["-tls1_2"]),
                (True, ["-tls1_2", "-cipher", "ECDHE-ECDSA-CHACHA20-POLY1305"]),
                (False, ["-tls1_1", "-cipher", weak]), (False, ["-tls1", "-cipher", weak]),
                (False, ["-tls1_2", "-cipher", "ECDHE-ECDSA-AES128-SHA256"]),
                (False, ["-tls1_2", "-cipher", f"AES128-GCM-SHA256:{weak}"])):
            found = self.s_client("-brief", *options)
            self.assertEqual(found.returncode == 0, accepted, (options, found.stderr))
        self.assertIn("Compression: NONE", self.s_client("-comp", "-tls1_2").stdout)
        again = self.s_client("-tls1_2", said="R\n")
        self.assertRegex(again.stderr, "no renegotiation|handshake failure")

    def test_sessions_are_taken_up_again(self):
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            context, session = self.authority.client(version=version), None
            for resumed in (False, True):
                with socket.create_connection(("127.0.0.1", self.secure_port)) as plain, \
                        context.wrap_socket(plain, server_hostname="127.0.0.1",
                                            session=session) as tls:
                    self.assertEqual(tls.session_reused, resumed)
                    tls.sendall(b"GET / HTTP/1.1\r\nHost: h\r\n\r\n")
                    self.assertIn(b" 404 ", tls.recv(4096))  # the tickets have come before it
                    session = tls.session

    def test_an_end_without_a_word_is_no_end_of_a_request(self):
        context = self.authority.client()
        with socket.create_connection(("127.0.0.1", self.secure_port)) as plain:
            tls = context.wrap_socket(plain, server_hostname="127.0.0.1")
            tls.sendall(b"GET / HTTP/1.1\r\nHost: h\r\n\r\n")
            self.assertIn(b" 404 ", tls.recv(4096))
            raw = socket.socket(fileno=tls.detach())
            raw.shutdown(socket.SHUT_WR)
            raw.settimeout(10)
            while raw.recv(4096):
                pass
            raw.close()

    def test_5000_slow_and_broken_handshakes_keep_nobody_waiting(self):
        harness.allow_many_descriptors()
        begun = bytes.fromhex("16030100c8010000c4")
        pieces = [b"", b"\x16", begun, b"GET / HTTP/1.1\r\n\r\n", begun + bytes(300), bytes(50)]
        before = self.resident()
        slow = []
        self.addCleanup(lambda: [each.close() for each in slow])
        for number in range(5000):
            source = f"127.0.1.{number % 8 + 1}"
            one = socket.create_connection(("127.0.0.1", self.secure_port), 20, (source, 0))
            one.sendall(pieces[number % len(pieces)])
            slow.append(one)
            if number % 250 == 0:
                self.assertEqual(self.secure(source="127.0.0.9").get(INFO).status, 200)
        # A sanitizer's allocator pads what it gives and keeps what is given back.
        most = 6 if not self.is_sanitized() else 40
        self.assertLess((self.resident() - before) / 5000, most, "KiB each")
        with self.client() as one:
            self.assertEqual(one.get(INFO).status, 200)
        for each in slow:  # all are ended by the gateway
            each.settimeout(20)
            try:
                while each.recv(4096):
                    pass
            except ConnectionResetError:
                pass

    def memory(self, what):
        status = pathlib.Path(f"/proc/{self.gateway.child.pid}/status").read_text()
        return int(re.search(what + r":\s*(\d+)", status)[1])

    def resident(self):
        return self.memory("VmRSS")

    def is_sanitized(self):
        return self.memory("VmSize") > 1 << 30  # KiB: its shadow takes terabytes of addresses


class RealClients(TlsTest):
    @classmethod
    def settings(cls):
        return {"client_ca": str(cls.authority.certificate), "client_certificates": "optional"}

    def url(self, path=INFO):
        return f"https://127.0.0.1:{self.secure_port}{path}"

    def needs(self, tool):
        if not shutil.which(tool):
            self.skipTest(f"{tool} is not installed")

    def test_curl(self):
        self.needs("curl")
        login = ["curl", "-sS", "--digest", "-u", f"admin:{harness.PASSWORD}", "--cacert",
                 self.authority.certificate]
        own = self.authority.issue("curl")
        for options in ([], ["--tls-max", "1.2"], ["--tlsv1.3"], ["--cert", own[0], "--key", own[1]]):
            self.assertIn("<DeviceInfo>", run(*login, *options, self.url()).stdout, options)
        other = certificates.Authority("stranger")
        self.addCleanup(other.close)
        stranger = other.issue("curl")
        for options in (["--tls-max", "1.1"], ["--cert", stranger[0], "--key", stranger[1]]):
            refused = run(*login, *options, self.url())
            self.assertNotEqual(refused.returncode, 0, options)
            self.assertNotIn("DeviceInfo", refused.stdout)

    @unittest.skipUnless(importlib.util.find_spec("requests"), "requests is not installed")
    def test_requests(self):
        code = ("import requests, sys; from requests.auth import HTTPDigestAuth as D; "
                "print(requests.get(sys.argv[1], auth=D('admin', sys.argv[2]), "
                "verify=sys.argv[3]).text)")
        found = run(sys.executable, "-c", code, self.url(), harness.PASSWORD,
                    self.authority.certificate)
        self.assertIn("<DeviceInfo>", found.stdout, found.stderr)

    def test_node(self):
        self.needs("node")
        code = ("require('https').get(process.argv[1], {ca: require('fs').readFileSync("
                "process.argv[2])}, answer => { console.log(answer.statusCode); answer.resume(); })")
        found = run("node", "-e", code, self.url(), self.authority.certificate)
        self.assertEqual(found.stdout, "401\n", found.stderr)

    def test_chromium(self):
        self.needs("chromium")
        key = run("openssl", "x509", "-in", self.identity[0], "-pubkey", "-noout").stdout
        der = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "der"], input=key.encode(),
                             capture_output=True, check=True).stdout
        digest = subprocess.run(["openssl", "dgst", "-sha256", "-binary"], input=der,
                                capture_output=True, check=True).stdout
        pin = subprocess.run(["openssl", "base64"], input=digest, capture_output=True,
                             check=True).stdout.decode().strip()
        with tempfile.TemporaryDirectory() as folder:
            shown = run("chromium", "--headless", "--no-sandbox", "--disable-gpu",
                        "--disable-dev-shm-usage", f"--user-data-dir={folder}", "--dump-dom",
                        f"--ignore-certificate-errors-spki-list={pin}", self.url("/")).stdout
        self.assertIn("<title>KAVRO gateway</title>", shown)


class Required(TlsTest):
    http = {"enabled": True}
    more = {"certificates": []}

    @classmethod
    def settings(cls):
        named = cls.authority.issue("named", "DNS:cam.test,DNS:*.wild.test")
        cls.more = {"certificates": [{"certificate": str(named[0]), "key": str(named[1])}]}
        return {"client_ca": str(cls.authority.certificate), "client_certificates": "required",
                "min_version": "1.3", "redirect": True}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()

    def test_only_known_clients_of_the_newest_version(self):
        known = self.authority.issue("client")
        self.assertEqual(self.secure(known).get(INFO).status, 200)
        for identity, version in ((None, None), (known, ssl.TLSVersion.TLSv1_2)):
            with self.assertRaises((ssl.SSLError, ConnectionError, http.client.HTTPException)):
                self.secure(identity, version).get(INFO)

    def test_certificates_by_server_name(self):
        for name, subject in (("cam.test", "named"), ("CAM.TEST", "named"), ("a.wild.test", "named"),
                              ("a.b.wild.test", "server"), ("wild.test", "server"),
                              ("other.test", "server")):
            found = self.s_client("-servername", name).stdout
            self.assertIn(f"subject=CN = {subject}\n", found, name)

    def test_http_leads_to_https(self):
        here = f":{self.secure_port}"
        for host, status, leads in (
                ("gw.test:80", 308, f"https://gw.test{here}/a?b=%20"),
                ("[::1]:8080", 308, f"https://[::1]{here}/a?b=%20"), ("gw.test", 308, None),
                ("evil/@x", 400, None), ("a b", 400, None), ("", 400, None)):
            with client.Client(self.gateway.port) as one:
                answer = one.put("/a?b=%20", b"body", headers={"Host": host})
            self.assertEqual(answer.status, status, host)
            if leads:
                self.assertEqual(answer.headers["Location"], leads)


class Rotation(TlsTest):
    def subject(self):
        return re.search(r"subject=CN = (\S+)", self.s_client().stdout)[1]

    def reload_with(self, identity):
        self.gateway.sections["https"].update(certificate=str(identity[0]), key=str(identity[1]))
        self.gateway.write_configuration(self.device_tables(), self.user_tables())
        return self.gateway.reload()[-1]

    def test_new_certificates_fail_no_request_and_bad_ones_change_nothing(self):
        ended, failures, done = threading.Event(), [], [0] * 4
        context = self.authority.client()

        def ask(number):
            kept = client.Client(self.secure_port, "admin", harness.PASSWORD, tls=context)
            while not ended.is_set():
                with client.Client(self.secure_port, "admin", harness.PASSWORD, tls=context) as new:
                    for one in (kept, new):
                        if (answer := one.get(INFO)).status != 200:
                            failures.append(answer)
                done[number] += 1
            kept.close()

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            asking = [pool.submit(ask, number) for number in range(4)]
            try:
                last = "server"
                for round in range(6):
                    identity = self.authority.issue(f"next{round}")
                    before = list(done)
                    self.assertIn("read again", self.reload_with(identity))
                    last = f"next{round}"
                    self.assertEqual(self.subject(), last)
                    harness.wait_until(lambda: all(a > b for a, b in zip(done, before)))
                for bad, why in (((identity[0], self.identity[1]), "expected the key of"),
                                 ((identity[0], pathlib.Path("/nowhere")), "cannot be read"),
                                 ((identity[1], identity[1]), "expected a certificate"),
                                 (self.authority.expired("old"), "not expired")):
                    self.assertIn(why, self.reload_with(bad))
                    self.assertEqual(self.subject(), last)
            finally:
                ended.set()
            for each in asking:
                each.result()
        self.assertEqual(failures, [])
        # The same files, with something else in them; and the clients of HTTP do not notice.
        identity = self.authority.issue(last)
        self.assertIn("read again", self.reload_with(identity))
        self.assert_serving()

    def test_http_can_be_switched_off_and_on(self):
        for enabled in (False, True):
            self.gateway.sections["http"]["enabled"] = enabled
            self.gateway.write_configuration(self.device_tables(), self.user_tables())
            self.gateway.reload()
            self.assertEqual(self.gateway._ready(), enabled)
            self.assertEqual(self.secure().get(INFO).status, 200)


if __name__ == "__main__":
    unittest.main()
