"""Digest login, the lock after wrong passwords, the client's address, and which device is meant."""
import json
import time
import unittest

import client
import harness

URL = "/KAVRO/System/deviceInfo"


class Login(harness.GatewayTest):
    """Every test comes from an address of its own, so that no test's lock is another's."""

    sections = {"lock": {"max_attempts": 3, "lock_seconds": 600}}

    def wrong(self, source, **more):
        return self.client(password="not it", source=source).get(URL, **more)

    def test_wrong_passwords_count_down_to_the_lock(self):
        for _ in range(4):  # no credentials are no guess
            answer = client.Client(self.gateway.port, source="127.0.0.11").get(URL)
            challenge = client.parse_challenge(answer.headers["WWW-Authenticate"])
            self.assertEqual((answer.status, challenge["realm"], challenge["qop"]),
                             (401, "KAVRO", "auth"))
        for lock, retries in (("unlocked", "2"), ("unlocked", "1"), ("locked", "0")):
            answer = self.wrong("127.0.0.11")
            found = dict(answer.children())
            self.assertEqual((answer.status, found["lockStatus"], found["retryLoginTime"]),
                             (401, lock, retries), answer)
        self.assertTrue(590 <= int(found["unlockTime"]) <= 600, found)
        for name in ("admin", "operator"):
            self.assertEqual(self.client(name, source="127.0.0.11").get(URL).status, 401)
        self.assertEqual(self.client(source="127.0.0.14").get(URL).status, 200)

    def test_an_answer_proves_that_the_gateway_knows_the_password(self):
        one = self.client(source="127.0.0.25")
        answer = one.get(URL)
        info = client.parse_challenge("Digest " + answer.headers["Authentication-Info"])
        ha1 = client.md5(f"admin:KAVRO:{harness.PASSWORD}")
        uri = client.md5(f":{URL}")
        self.assertEqual(info["rspauth"], client.md5(
            f"{ha1}:{one.challenge['nonce']}:{info['nc']}:{info['cnonce']}:auth:{uri}"))
        self.assertNotIn("Authentication-Info", self.wrong("127.0.0.26").headers)

    def test_guesses_leave_few_lines(self):
        for _ in range(10):
            self.wrong("127.0.0.41")

        def lines():
            return [line for line in self.gateway.lines if "127.0.0.41" in line]
        harness.wait_until(lambda: len(lines()) > 1, 5, "the summary")
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

    def test_a_written_forwarding_header_gains_nothing(self):
        for _ in range(3):
            self.wrong("127.0.0.15")
        forwarded = {"X-Forwarded-For": "127.0.0.16"}
        answer = self.client(source="127.0.0.15").get(URL, headers=forwarded)
        self.assertEqual(answer.status, 401, "a locked client hid behind another address")
        for _ in range(3):
            self.wrong("127.0.0.17", headers={"X-Forwarded-For": "127.0.0.18"})
        self.assertEqual(self.client(source="127.0.0.18").get(URL).status, 200,
                         "a client locked out another one")


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
        log = self.gateway.log()
        self.assertIn("password", log, "nothing was logged")
        for secret in (planted, harness.PASSWORD, used.rsplit('"', 2)[1]):
            self.assertNotIn(secret, log)


class LockEnd(harness.GatewayTest):
    sections = {"lock": {"max_attempts": 1, "lock_seconds": 2}}

    def test_the_lock_ends_by_itself(self):
        self.assertEqual(self.client(password="x").get(URL).status, 401)
        self.assertEqual(self.client().get(URL).status, 401)
        harness.wait_until(lambda: self.client().get(URL).status == 200, 8, "the end of the lock")


class TrustedProxy(harness.GatewayTest):
    sections = {"http": {"trusted_proxies": ["127.0.0.31"]}, "lock": {"max_attempts": 1}}

    def test_a_trusted_proxy_names_the_client(self):
        def behind(address, password=harness.PASSWORD):
            return self.client(password=password, source="127.0.0.31").get(
                URL, headers={"X-Forwarded-For": address}).status

        self.assertEqual(behind("10.0.0.1", "wrong"), 401)
        self.assertEqual((behind("10.0.0.1"), behind("10.0.0.2")), (401, 200))


class DevicePorts(harness.GatewayTest):
    sections = {"kavro": {"mode": 2}}

    @classmethod
    def device_tables(cls):
        if not hasattr(cls, "ports"):
            cls.ports = harness.free_ports(2)
        return [{**table, "http_port": port, "rtsp_port": 10000 + number}
                for number, (table, port) in enumerate(zip(super().device_tables(), cls.ports))]

    @classmethod
    def user_tables(cls):
        return [harness.user("admin", "1", devices=["2"]), harness.user("operator", "2")]

    def ask(self, port, name="admin", url=URL, **more):
        with client.Client(port, name, harness.PASSWORD) as one:
            return one.get(url, **more)

    def serial(self, port, name="admin", **more):
        return self.ask(port, name, **more).xml().findtext("serialNumber")[-1]

    def test_the_port_names_the_device(self):
        self.assertEqual([self.serial(port) for port in self.ports], ["1", "2"])

    def test_other_ports_mean_the_users_own_device(self):
        self.assertEqual(self.serial(self.gateway.port, "operator"), "2")
        for host in ("127.0.0.1", "gateway.example", "127.0.0.1:1", "127.0.0.1:99999999999"):
            self.assertEqual(self.serial(self.ports[1], headers={"Host": host}), "1", host)
        protocols = self.ask(self.ports[1], url="/KAVRO/Security/adminAccesses").xml()
        self.assertEqual([protocol.findtext("portNo") for protocol in protocols],
                         [str(self.ports[1]), "10001"])

    def test_a_user_needs_to_be_allowed_on_the_device(self):
        before = self.devices.state(1)["requests"]
        for url, kind in ((URL, "application/xml"),
                          ("/KAVRO/System/time?format=json", "application/json")):
            answer = self.ask(self.ports[0], "operator", url)
            self.assertEqual((answer.status, answer.type()), (403, kind), answer)
        self.assertEqual(self.devices.state(1)["requests"], before)

    def test_a_removed_device_takes_its_port_along(self):
        tables = self.device_tables()
        self.addCleanup(self.gateway.reload)
        self.addCleanup(self.gateway.write_configuration, tables, self.user_tables())
        self.gateway.write_configuration(tables[:1], self.user_tables())
        self.gateway.reload()
        with self.assertRaises(OSError):
            for _ in range(100):
                client.socket.create_connection(("127.0.0.1", self.ports[1]), 1).close()
                time.sleep(0.05)
        self.assertEqual(self.serial(self.ports[0]), "1")


if __name__ == "__main__":
    unittest.main()
