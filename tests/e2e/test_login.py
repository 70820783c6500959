"""Digest login, the lock after wrong passwords, and the client's address."""
import unittest

import client
import harness

URL = "/KAVRO/System/deviceInfo"


class Login(harness.GatewayTest):
    """Every test comes from an address of its own, so that no test's lock is another's."""

    sections = {"lock": {"max_attempts": 3, "lock_seconds": 600}}

    def wrong(self, source, **more):
        return self.client(password="not it", source=source).get(URL, **more)

    def lock(self, source):
        for _ in range(3):
            self.wrong(source)

    def assert_refused(self, answer, lock_status, retries):
        self.assertEqual(answer.status, 401, answer)
        expected = [("requestURL", URL), ("statusCode", "401"), ("statusString", "Unauthorized"),
                    ("subStatusCode", "badAuthorization"), ("lockStatus", lock_status)]
        found = answer.children()
        self.assertEqual(found[:5], expected)
        self.assertEqual(found[-1], ("retryLoginTime", str(retries)))
        return dict(found)

    def test_without_credentials_there_is_a_challenge_and_no_count(self):
        for _ in range(5):
            answer = client.Client(self.gateway.port, source="127.0.0.11").get(URL)
            self.assertEqual(answer.status, 401)
            self.assertEqual([name for name, _ in answer.children()],
                             ["requestURL", "statusCode", "statusString", "subStatusCode"])
            challenge = client.parse_challenge(answer.headers["WWW-Authenticate"])
            self.assertEqual((challenge["realm"], challenge["qop"]), ("KAVRO", "auth"))
        self.assertEqual(self.client(source="127.0.0.11").get(URL).status, 200)

    def test_wrong_passwords_count_down_to_the_lock(self):
        for left in (2, 1):
            self.assertNotIn("unlockTime", self.assert_refused(
                self.wrong("127.0.0.12"), "unlocked", left))
        locked = self.assert_refused(self.wrong("127.0.0.12"), "locked", 0)
        self.assertTrue(590 <= int(locked["unlockTime"]) <= 600, locked)

    def test_right_credentials_are_refused_while_locked(self):
        self.lock("127.0.0.13")
        self.assert_refused(self.client(source="127.0.0.13").get(URL), "locked", 0)
        self.assertEqual(self.client("operator", source="127.0.0.13").get(URL).status, 401)
        self.assertEqual(self.client(source="127.0.0.14").get(URL).status, 200)

    def test_a_written_forwarding_header_gains_nothing(self):
        self.lock("127.0.0.15")
        forwarded = {"X-Forwarded-For": "127.0.0.16"}
        answer = self.client(source="127.0.0.15").get(URL, headers=forwarded)
        self.assertEqual(answer.status, 401, "a locked client hid behind another address")
        for _ in range(3):
            self.wrong("127.0.0.17", headers={"X-Forwarded-For": "127.0.0.18"})
        self.assertEqual(self.client(source="127.0.0.18").get(URL).status, 200,
                         "a client locked out another one")

    def test_unknown_users_are_counted_like_known_ones(self):
        for left in (2, 1):
            answer = self.client("nobody", source="127.0.0.19").get(URL)
            self.assert_refused(answer, "unlocked", left)

    def test_a_success_in_between_starts_the_count_again(self):
        self.wrong("127.0.0.20")
        self.assertEqual(self.client(source="127.0.0.20").get(URL).status, 200)
        self.assert_refused(self.wrong("127.0.0.20"), "unlocked", 2)

    def test_a_replayed_request_is_refused(self):
        one = self.client(source="127.0.0.21")
        self.assertEqual(one.get(URL).status, 200)
        replay = {"Authorization": one.authorization("GET", URL)}
        with client.Client(self.gateway.port, source="127.0.0.21") as thief:
            self.assertEqual(thief.once("GET", URL, headers=replay).status, 200)
            self.assertEqual(thief.once("GET", URL, headers=replay).status, 401)

    def test_a_login_for_one_url_opens_no_other(self):
        one = self.client(source="127.0.0.22")
        self.assertEqual(one.get(URL).status, 200)
        stolen = {"Authorization": one.authorization("GET", URL)}
        with client.Client(self.gateway.port, source="127.0.0.22") as thief:
            self.assertEqual(
                thief.once("GET", "/KAVRO/System/time", headers=stolen).status, 401)
            self.assertEqual(thief.once("PUT", URL, headers=stolen).status, 401)

    def test_strange_credentials_are_answered(self):
        values = ("", "Digest", "Digest ,,,=", "Basic YWRtaW46eA==", "Bearer x",
                  'Digest username="admin"', 'Digest username="' + "a" * 6000 + '"',
                  'Digest username="admin", realm="KAVRO", nonce="x", uri="' + URL +
                  '", qop=auth, nc=zz, cnonce="", response=""')
        with client.Client(self.gateway.port, source="127.0.0.23") as one:
            for value in values:
                answer = one.once("GET", URL, headers={"Authorization": value})
                self.assertEqual(answer.status, 401, value[:40])
                self.assertEqual(answer.xml().findtext("statusCode"), "401")


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


if __name__ == "__main__":
    unittest.main()
