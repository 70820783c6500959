"""Three gateways that share Redis and PostgreSQL, with clients of each, while parts of it are killed."""
import collections
import http.client
import itertools
import shutil
import threading
import time
import unittest

import client
import cluster
import engines
import harness

INFO = "/KAVRO/System/deviceInfo"
DEVICES = 20


class Listener(threading.Thread):
    """A client's alert stream: what came on it, until it ends."""

    def __init__(self, port, user):
        super().__init__(daemon=True)
        self.names = []
        self.stream = client.AlertStream(port, user, harness.PASSWORD)
        if self.stream.status != 200:
            raise AssertionError(f"no stream: {self.stream.status}")
        self.start()

    def run(self):
        try:
            while part := self.stream.alarm():
                self.names.append(part[1].split(b"<channelName>")[1].split(b"<")[0].decode())
        except (OSError, ValueError, AttributeError, http.client.HTTPException):
            pass  # its gateway was killed


class ClusterTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not shutil.which("redis-server"):
            raise unittest.SkipTest("redis-server is not installed")
        cls.devices = harness.Subdevices(DEVICES)
        cls.addClassCleanup(cls.devices.stop)
        cls.redis = engines.Redis()
        cls.addClassCleanup(cls.redis.stop)
        cls.postgres = engines.Postgres() if engines.has_postgres() else None
        if cls.postgres:
            cls.addClassCleanup(cls.postgres.stop)
        tables = [{"index": str(number), "url": url}
                  for number, url in enumerate(cls.devices.urls, 1)]
        users = [harness.user("admin", "1")] + [
            harness.user(f"user{number}", str(number)) for number in range(2, DEVICES + 1)]
        key = cluster.nonce_key(cls.redis.folder)
        postgres = cls.postgres and cls.postgres.url
        cls.gateways = [cluster.Member(number, tables, users, key, cls.redis.url, postgres)
                        for number in (1, 2, 3)]
        for gateway in cls.gateways:
            cls.addClassCleanup(gateway.stop)

    def setUp(self):
        for gateway in self.gateways:
            harness.wait_until(lambda: gateway.health() == (200, []), what="an engine")

    def listen(self, gateway, user="admin"):
        listener = Listener(gateway.port, user)
        self.addCleanup(listener.stream.client.close)
        return listener

    def push(self, name, number=1):
        self.devices.order(number, alarm={"count": 1, "alert": {"channelName": name}})

    def flows(self, *listeners, number=1):
        """Alarms come everywhere. Their names are ascending numbers."""
        def pushed():
            self.pushed = getattr(self, "pushed", 1_000_000) + 1
            self.push(str(self.pushed), number)
            deadline = time.monotonic() + 0.5
            while time.monotonic() < deadline:
                if all(str(self.pushed) in each.names for each in listeners):
                    return True
                time.sleep(0.01)
            return False
        harness.wait_until(pushed, what="alarms on all streams")

    def send(self, count, *listeners, number=1):
        """Alarms that all get, in their order, and once."""
        for _ in range(count):
            self.pushed += 1
            self.push(str(self.pushed), number)
        last = str(self.pushed)
        for each in listeners:
            harness.wait_until(lambda: last in each.names, what="the last alarm")
            expected = [str(self.pushed - count + 1 + i) for i in range(count)]
            self.assertEqual(each.names[-count:], expected)
            self.assertEqual(each.names, sorted(set(each.names)), "twice, or out of order")

    def test_a_client_may_go_from_gateway_to_gateway_with_its_login(self):
        one = client.Client(self.gateways[0].port, "admin", harness.PASSWORD)
        self.addCleanup(one.close)
        self.assertEqual(one.get(INFO).status, 200)
        statuses = collections.Counter()
        deadline = time.monotonic() + 60
        for turn in itertools.count():
            if statuses[200] == 30:
                break
            self.assertLess(time.monotonic(), deadline, statuses)
            with client.Client(self.gateways[turn % 3].port, "admin", harness.PASSWORD) as elsewhere:
                elsewhere.challenge, elsewhere.uses = one.challenge, one.uses
                answer = elsewhere.once("GET", INFO)
                one.uses = elsewhere.uses
                statuses[answer.status] += 1
                if answer.status == 401:  # in time or not, nobody is asked for a password
                    challenge = client.parse_challenge(answer.headers["WWW-Authenticate"])
                    self.assertEqual(challenge["stale"], "TRUE")
                    one.challenge, one.uses = challenge, 0
        self.assertEqual(set(statuses) - {200, 401}, set())

    def test_a_lock_holds_everywhere(self):
        for turn in range(5):
            with client.Client(self.gateways[turn % 3].port, "admin", "wrong",
                               source="127.0.0.7") as guesser:
                guesser.get(INFO)
        # A right login that overtakes the guesses on their way forgives them: it waits for the lock.
        for gateway in self.gateways:
            harness.wait_until(lambda: gateway.metric("qn_login_locked_addresses") == 1,
                               what="the lock")
            with client.Client(gateway.port, "admin", harness.PASSWORD, "127.0.0.7") as right:
                self.assertIn(b"unlockTime", right.get(INFO).body)
            with client.Client(gateway.port, "admin", harness.PASSWORD) as other:
                self.assertEqual(other.get(INFO).status, 200)
        expiring = self.redis.ask("EVAL", "local n = 0 for _, k in ipairs(redis.call('KEYS', '*')) do "
                                  "if redis.call('PTTL', k) < 0 then n = n + 1 end end return n", "0")
        self.assertEqual(expiring, "0")

    def test_streams_live_on_when_a_gateway_and_redis_are_killed(self):
        first = self.listen(self.gateways[0])
        self.flows(first)
        others = [self.listen(gateway) for gateway in self.gateways[1:]]
        self.flows(first, *others)
        self.assertEqual(self.devices.state(1)["alertStreams"], 1)
        self.send(100, first, *others)
        self.gateways[0].child.kill()
        self.gateways[0].wait()
        self.flows(*others)
        self.send(100, *others)
        self.assertEqual(self.devices.state(1)["alertStreams"], 1)
        self.gateways[0].start()
        self.redis.kill()
        harness.wait_until(lambda: self.devices.state(1)["alertStreams"] == 2, what="own streams")
        self.flows(*others)
        self.send(50, *others)
        for gateway in self.gateways:
            status, without = gateway.health()
            self.assertEqual((status, len(without)), (200, 1), without)
            with client.Client(gateway.port, "admin", harness.PASSWORD) as good:
                self.assertEqual(good.get(INFO).status, 200)
        self.redis.start()
        harness.wait_until(lambda: self.devices.state(1)["alertStreams"] == 1, what="one stream")
        self.flows(*others)
        self.send(100, *others)

    def test_every_operation_is_in_the_database_once(self):
        if not self.postgres:
            self.skipTest("PostgreSQL is not installed")
        sent = 0
        for turn in range(3):
            if turn == 1:
                self.postgres.kill()
            for gateway in self.gateways:
                with client.Client(gateway.port, "user5", harness.PASSWORD) as one:
                    for _ in range(10):
                        answer = one.put("/KAVRO/System/time?format=json",
                                         b'{"Time": {"timeMode": "NTP"}}')
                        self.assertEqual(answer.status, 200, answer)
                        sent += 1
            if turn == 1:
                harness.wait_until(lambda: self.gateways[0].health()[1], what="the outage")
                self.assertEqual(self.gateways[0].health()[0], 200)
                self.postgres.start()
        rows = ("SELECT count(*), count(DISTINCT gateway), min(status), max(status) "
                "FROM operation_log WHERE operation LIKE 'PUT /KAVRO/System/time%'")
        harness.wait_until(lambda: self.postgres.ask(rows) == f"{sent}|3|200|200",
                           what=f"{sent} rows of 3 gateways")

    @unittest.skipUnless(engines.has_haproxy(), "haproxy is not installed")
    def test_the_load_balancer_goes_round_a_gateway_that_is_not_there(self):
        proxy = engines.Haproxy([each.port for each in self.gateways],
                                [each.admin_port for each in self.gateways])
        self.addCleanup(proxy.stop)

        def all_served():
            for source in range(20, 32):
                with client.Client(proxy.port, "admin", harness.PASSWORD,
                                   f"127.0.0.{source}") as one:
                    if one.get(INFO).status != 200:
                        return False
            return True

        harness.wait_until(all_served, what="the load balancer")
        listener = self.listen(proxy, "user3")
        self.flows(listener, number=3)
        self.gateways[2].child.terminate()
        self.assertEqual(self.gateways[2].wait(), 0)
        harness.wait_until(all_served, what="the others")
        self.assertTrue(all_served())
        self.gateways[2].start()


if __name__ == "__main__":
    unittest.main()
