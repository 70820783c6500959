"""Clients: their login and its lock, the device that they mean, and those that are slow."""
import json
import socket
import time

import client
import harness

URL = "/KAVRO/System/deviceInfo"


class Login(harness.GatewayTest):
    """Every test comes from an address of its own, so that no test's lock is another's."""

    sections = {"http": {"trusted_proxies": ["127.0.0.31"]},
                "lock": {"max_attempts": 3, "lock_seconds": 8}}

    def status(self, source, password=harness.PASSWORD, forwarded=None, name="admin"):
        headers = {"X-Forwarded-For": forwarded} if forwarded else {}
        return self.client(name, password, source=source).get(URL, headers=headers).status

    def test_wrong_passwords_count_down_to_the_lock_and_it_ends(self):
        for _ in range(4):  # no credentials are no guess
            answer = client.Client(self.gateway.port, source="127.0.0.11").get(URL)
            challenge = client.parse_challenge(answer.headers["WWW-Authenticate"])
            self.assertEqual((answer.status, challenge["realm"], challenge["qop"]),
                             (401, "KAVRO", "auth"))
        for lock, retries in (("unlocked", "2"), ("unlocked", "1"), ("locked", "0")):
            found = self.client(password="no", source="127.0.0.11").get(URL).xml()
            self.assertEqual((found.findtext("lockStatus"), found.findtext("retryLoginTime")),
                             (lock, retries))
        self.assertEqual(found.findtext("unlockTime"), "8")
        self.assertEqual([self.status("127.0.0.11", name=name) for name in ("admin", "operator")],
                         [401, 401])
        self.assertEqual(self.status("127.0.0.11", forwarded="127.0.0.14"), 401, "hidden")
        self.assertEqual(self.status("127.0.0.14"), 200)
        harness.wait_until(lambda: self.status("127.0.0.11") == 200, 20, "the end of the lock")

    def test_a_trusted_proxy_names_the_client(self):
        for _ in range(3):
            self.status("127.0.0.31", "wrong", "10.0.0.1")
        self.assertEqual([self.status("127.0.0.31", forwarded=address)
                          for address in ("10.0.0.1", "10.0.0.2")], [401, 200])

    def test_an_answer_proves_that_the_gateway_knows_the_password(self):
        one = self.client(source="127.0.0.25")
        answer = one.get(URL)
        info = client.parse_challenge("Digest " + answer.headers["Authentication-Info"])
        ha1 = client.md5(f"admin:KAVRO:{harness.PASSWORD}")
        uri = client.md5(f":{URL}")
        self.assertEqual(info["rspauth"], client.md5(
            f"{ha1}:{one.challenge['nonce']}:{info['nc']}:{info['cnonce']}:auth:{uri}"))
        self.assertNotIn("Authentication-Info", self.client(password="no", source="127.0.0.26").get(URL).headers)

    def test_guesses_leave_few_lines(self):
        for _ in range(10):
            self.status("127.0.0.41", "no")

        def lines():
            return [line for line in self.gateway.lines if "127.0.0.41" in line]
        harness.wait_until(lambda: len(lines()) > 1, what="the summary")
        self.assertIn('login of "admin" from 127.0.0.41 failed: 2 attempts left', lines()[0])
        self.assertIn("locked", lines()[-1])
        self.assertIn("lines like this", lines()[-1])
        self.assertLess(len(lines()), 8)

    def test_credentials_open_one_url_once(self):
        one = self.client(source="127.0.0.21")
        self.assertEqual(one.get(URL).status, 200)
        with client.Client(self.gateway.port, source="127.0.0.21") as thief:
            stolen = {"Authorization": one.authorization("GET", URL)}
            for method, url, status in (("GET", "/KAVRO/System/time", 401), ("PUT", URL, 401),
                                        ("GET", URL, 200), ("GET", URL, 401)):
                self.assertEqual(thief.once(method, url, headers=stolen).status, status, url)


class Secrets(harness.GatewayTest):
    sections = {"log": {"level": "debug"}}

    def test_none_reaches_the_log(self):
        planted = "Pl4nted"
        url = "/KAVRO/Security/userCheck?format=json"
        bodies = (f'{{"User": {{"userName": "x", "password": "{planted}"}}}}',
                  f"<User><loginPassword>{planted}</loginPassword></User>", f'{{"pin": "{planted}')
        with self.client() as one:
            for body in bodies:
                for method, where in (("GET", url), ("PUT", "/KAVRO/System/deviceInfo"),
                                      ("POST", "/KAVRO/Intelligent/FDLib/FaceDataRecord?format=json"),
                                      ("PUT", "/KAVRO/System/time?format=json")):
                    one.request(method, where, body)
            one.get(f"{url}&password={planted}&x=1")
            for path, member in (("/KAVRO/System/deviceInfo", "DeviceInfo"),
                                 ("/KAVRO/System/status", "x")):
                self.devices.fault(1, kind="reply", count=1,
                                   body=json.dumps({member: {"password": planted}}))
                one.get(path)
            used = one.authorization("GET", URL)
            one.once("GET", URL, headers={"Authorization": used})
        self.gateway.reload()  # its line is behind all those
        log = self.gateway.log()
        self.assertIn("password", log, "nothing was logged")
        for secret in (planted, harness.PASSWORD, used.rsplit('"', 2)[1]):
            self.assertNotIn(secret, log)


class DevicePorts(harness.GatewayTest):
    sections = {"kavro": {"mode": 2}}

    @classmethod
    def device_tables(cls):
        if not hasattr(cls, "ports"):
            cls.ports = harness.free_ports(2)
        return [{**table, "http_port": port, "rtsp_port": 10001}
                for table, port in zip(super().device_tables(), cls.ports)]

    @classmethod
    def user_tables(cls):
        return [harness.user("admin", "1", devices=["2"]), harness.user("operator", "2")]

    def ask(self, port, name="admin", url=URL, **more):
        with client.Client(port, name, harness.PASSWORD) as one:
            return one.get(url, **more)

    def test_the_port_names_the_device_for_those_who_may_use_it(self):
        def serial(port, name="admin", **more):
            return self.ask(port, name, **more).xml().findtext("serialNumber")[-1]

        self.assertEqual([serial(port) for port in self.ports], ["1", "2"])
        self.assertEqual(serial(self.gateway.port, "operator"), "2")
        for host in ("127.0.0.1", "127.0.0.1:1", "127.0.0.1:99999999999"):
            self.assertEqual(serial(self.ports[1], headers={"Host": host}), "1", host)
        for port, device in zip([self.gateway.port, *self.ports], ["1", "1", "2"]):
            self.assertEqual(serial(port, headers={"Host": f"[::1]:{port}"}), device)
        own = {"Host": f"[::1]:{self.ports[1]}"}
        self.assertEqual(serial(self.gateway.port, headers=own), "1", "the port that was called")
        protocols = self.ask(self.ports[1], url="/KAVRO/Security/adminAccesses").xml()
        self.assertEqual([protocol.findtext("portNo") for protocol in protocols],
                         [str(self.ports[1]), "10001"])
        before = self.devices.state(1)["requests"]
        for url, kind in ((URL, "xml"), ("/KAVRO/System/time?format=json", "json")):
            answer = self.ask(self.ports[0], "operator", url)
            self.assertEqual((answer.status, answer.type()), (403, "application/" + kind), answer)
        self.assertEqual(self.devices.state(1)["requests"], before)

        self.reconfigure(self.device_tables()[:1])
        with self.assertRaises(OSError):
            for _ in range(100):
                socket.create_connection(("127.0.0.1", self.ports[1]), 1).close()
                time.sleep(0.05)
        self.assertEqual(serial(self.ports[0]), "1")


class SlowClients(harness.GatewayTest):
    sections = {"http": {"head_seconds": 2, "body_seconds": 2, "connections_per_address": 1100}}

    def test_a_thousand_idle_and_two_slow_clients_hold_nobody_up(self):
        harness.allow_many_descriptors()
        server = ("127.0.0.1", self.gateway.port)
        idle = [socket.create_connection(server, 10, ("127.0.0.2", 0)) for _ in range(1000)]
        slow = [socket.create_connection(server) for _ in range(2)]
        slow[0].sendall(b"GET /none HTTP/1.1\r\n")
        slow[1].sendall(b"POST /none HTTP/1.1\r\nHost: h\r\nContent-Length: 1000\r\n\r\n")
        began = time.monotonic()
        while slow and time.monotonic() - began < 20:  # a byte now and then, until they are cut
            self.assert_serving()
            for one in list(slow):
                one.settimeout(0.1)
                try:
                    self.assertIn(b" 408 ", one.recv(4096))
                    one.close()
                    slow.remove(one)
                except TimeoutError:
                    one.sendall(b"a")
        self.assertFalse(slow, "a slow sender went on")
        before = self.gateway.descriptors()
        for one in idle:
            one.close()
        harness.wait_until(lambda: self.gateway.descriptors() < 100 < before,
                           what="the descriptors of the closed connections")
