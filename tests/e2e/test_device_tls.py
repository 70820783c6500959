"""Devices over https: simulated ones behind a server of TLS, with certificates of all kinds."""
import hashlib
import os
import socket
import ssl
import subprocess
import threading

import certificates
import client
import harness

INFO = "/KAVRO/System/deviceInfo"


class TlsFront:
    """Forwards what comes over TLS to a port; remembers how it came."""

    def __init__(self, identity, port, version=None):
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(*identity)
        if version:
            self.context.maximum_version = version
        self.context.sni_callback = lambda one, name, context: self.names.append(name)
        self.target, self.names, self.reused, self.open = port, [], [], []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                one, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(one,), daemon=True).start()

    def _serve(self, one):
        try:
            secure = self.context.wrap_socket(one, server_side=True)
        except OSError:
            return one.close()
        self.reused.append(secure.session_reused)
        plain = socket.create_connection(("127.0.0.1", self.target))
        self.open += [secure, plain]
        threading.Thread(target=self._pump, args=(plain, secure), daemon=True).start()
        self._pump(secure, plain)

    @staticmethod
    def _pump(source, sink):
        try:
            while piece := source.recv(65536):
                sink.sendall(piece)
        except (OSError, ValueError):
            pass
        for one in (source, sink):
            TlsFront._end(one)

    @staticmethod
    def _end(one):
        try:
            one.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        one.close()

    def break_all(self):
        """Without the alert that says that it is meant."""
        while self.open:
            self._end(self.open.pop())

    def close(self):
        self.listener.close()
        self.break_all()


def digest(certificate):
    return hashlib.sha256(ssl.PEM_cert_to_DER_cert(certificate.read_text())).hexdigest().upper()


class DeviceTls(harness.StreamTest):
    """Each device has a user of its name; "admin" has device 1."""

    @classmethod
    def setUpClass(cls):
        cls.authority, cls.stranger = certificates.Authority(), certificates.Authority("stranger")
        cls.addClassCleanup(cls.authority.close)
        cls.addClassCleanup(cls.stranger.close)
        cls.devices = harness.Subdevices(1, "--username", "gw", "--password", "pw-12345")
        cls.addClassCleanup(cls.devices.stop)
        issue, ca = cls.authority.issue, {"ca_file": str(cls.authority.certificate)}
        good, foreign = issue("good"), cls.stranger.issue("foreign")
        expired, other = cls.authority.expired("expired"), issue("other", "DNS:other.example")
        old, pin = ssl.TLSVersion.TLSv1_2, {"fingerprint": digest(foreign[0])}
        cls.cases = {  # certificate, version, host, keys of the device, what a client is told
            "good": (good, None, "127.0.0.1", ca, None),
            "good12": (good, old, "localhost", ca, None),
            "system": (good, None, "localhost", {}, None),
            "pinned": (foreign, None, "127.0.0.1", pin, None),
            "unverified": (other, None, "127.0.0.1", {"verify": False}, None),
            "expired": (expired, None, "127.0.0.1", ca, "deviceCertificateExpired"),
            "foreign": (foreign, None, "127.0.0.1", ca, "deviceCertificateUnknownIssuer"),
            "foreign2": (foreign, old, "localhost", {}, "deviceCertificateUnknownIssuer"),
            "name": (other, None, "localhost", ca, "deviceCertificateWrongName"),
            "address": (issue("dns", "DNS:localhost"), None, "127.0.0.1", ca,
                        "deviceCertificateWrongName"),
            "mispinned": (good, None, "127.0.0.1", pin, "deviceCertificateWrongFingerprint")}
        cls.fronts = {name: TlsFront(case[0], cls.devices.port(), case[1])
                      for name, case in cls.cases.items()}
        for front in cls.fronts.values():
            cls.addClassCleanup(front.close)
        os.environ["SSL_CERT_FILE"] = str(cls.authority.certificate)  # the system's authorities
        cls.addClassCleanup(os.environ.pop, "SSL_CERT_FILE")
        cls.gateway = harness.Gateway(cls.device_tables(), cls.user_tables())
        cls.addClassCleanup(cls.gateway.stop)

    @classmethod
    def device_tables(cls):
        return [{"index": name, "url": f"https://{case[2]}:{cls.fronts[name].port}",
                 "username": "gw", "password": "pw-12345", **case[3]}
                for name, case in cls.cases.items()]

    @classmethod
    def user_tables(cls):
        return [harness.user("admin", "good"), *(harness.user(name, name) for name in cls.cases)]

    def test_who_a_device_is_decides_and_every_fault_has_its_name(self):
        for name, (_, _, host, _, fault) in self.cases.items():
            with self.subTest(name), client.Client(self.gateway.port, name, harness.PASSWORD) as one:
                answers = [one.get("/KAVRO/System/time") for _ in range(5)]  # the last ones unasked
                self.assertEqual({answer.status for answer in answers}, {502 if fault else 200})
                if fault:
                    self.assertEqual({answer.json()["subStatusCode"] for answer in answers}, {fault})
                    said = f"device {name}: the device's certificate"
                    harness.wait_until(lambda said=said: said in self.gateway.log(), what=said)
                else:
                    self.assertEqual(one.get(INFO).xml().tag, "DeviceInfo")
                    self.assertEqual(set(self.fronts[name].names),
                                     {"localhost" if host == "localhost" else None})
        self.assertRegex(self.gateway.log(), 'devices.verify: whoever answers in place of')
        self.assertNotIn("pw-12345", self.gateway.log())

    def test_the_newest_session_is_used_again(self):
        for name in ("good", "good12"):
            front = self.fronts[name]
            with client.Client(self.gateway.port, name, harness.PASSWORD) as one:
                for _ in range(4):
                    self.assertEqual(one.get(INFO).status, 200)
                    opened = len(front.reused)
                    front.break_all()
                    one.get(INFO)
                    harness.wait_until(lambda: len(front.reused) > opened, what="a new connection")
            self.assertTrue(front.reused[-1], front.reused)

    def test_alarms_come_over_tls_and_again_when_it_breaks(self):
        stream = self.open()
        for number in range(2):
            self.push(1, channelName=f"front {number}")
            self.named(stream, f"front {number}")
            self.fronts["good"].break_all()
            harness.wait_until(lambda: self.gateway.log().count("of device good open") > number + 1)
        self.devices.order(1, alarm={"count": 500, "alert": {"channelName": "storm"}})
        self.named(stream, "storm")

    def test_the_command_tells_each_step(self):
        for name, status, said in (
                ("system", 0, r"resolve .*\n(.*\n)?TLS +TLSv1.3, the certificate is verified .*ms"
                              r"(.*\n)+login +Digest, accepted .*\nname +\"IPCamera 1\""),
                ("pinned", 0, "the pinned one"), ("unverified", 0, "NOT verified"),
                ("good12", 0, r"TLS +TLSv1\.2"),
                ("expired", 3, r"TLS +FAILED: the device's certificate has expired"),
                ("mispinned", 3, "FAILED: .*another fingerprint")):
            result = harness.run_gateway("--config", self.gateway.config, "device", "test", name)
            self.assertEqual(result.returncode, status, result)
            self.assertRegex(result.stdout, said)

    def test_the_command_names_the_step_that_fails(self):
        closed = harness.free_ports(1)[0]
        with socket.create_server(("127.0.0.1", 0)) as silent:
            config = self.gateway.folder / "steps.toml"
            for url, keys, said in (
                    ("http://no-such-host.invalid", {}, r"resolve +FAILED: Host not found"),
                    (f"http://127.0.0.1:{closed}", {}, r"connect +FAILED: Connection refused"),
                    (self.devices.urls[0].replace("http:", "https:"), {}, r"TLS +FAILED: "),
                    (self.devices.urls[0], {}, r"login +FAILED: .*no username"),
                    (self.devices.urls[0], {"username": "gw", "password": "no"},
                     r"login +FAILED: refused"),
                    (f"https://127.0.0.1:{silent.getsockname()[1]}", {},
                     r"TLS +FAILED: Connection timed out")):
                config.write_text(harness.configuration_text(
                    {}, [], [{"index": "1", "url": url, **keys}]))
                result = subprocess.run([harness.BIN / "qn-gateway", "--config", config, "device",
                                         "test", "1"], capture_output=True, text=True, timeout=30)
                self.assertEqual(result.returncode, 3, result)
                self.assertRegex(result.stdout, said)
