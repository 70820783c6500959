"""The admin listener: metrics, health, the operator's page in a real browser, unlock and reload."""
import contextlib
import http.client
import json
import pathlib
import re
import shutil
import subprocess
import tempfile
import threading
import time
import unittest

import client
import harness

INFO = "/KAVRO/System/deviceInfo"
FIXED, PER_DEVICE = 210, 12  # series, at most
ROOT = pathlib.Path(__file__).parents[2]
MONITORING = ROOT / "packaging" / "monitoring"


def needs(tool):
    """Skips a test, saying so, where a tool of Debian's is not installed."""
    return unittest.skipUnless(shutil.which(tool), f"{tool} is not installed")


def run(*command, **more):
    return subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          timeout=100, **more)


class AdminTest(harness.StreamTest):
    admin = {}

    @classmethod
    def setUpClass(cls):
        cls.port = harness.free_ports(1)[0]
        cls.sections = {"admin": {"port": cls.port, **cls.admin},
                        "lock": {"max_attempts": 2}, "kavro": {"mode": 1}}
        super().setUpClass()

    def ask(self, method, url, headers=None, port=None, **login):
        with client.Client(port or self.port, **login) as one:
            return one.request(method, url, headers=headers)

    def metrics(self):
        return harness.series(self.ask("GET", "/metrics").body.decode())


class Metrics(AdminTest):
    def test_a_conversation_is_counted(self):
        before = self.metrics()
        grown = lambda name: self.metrics()[name] - before[name]
        self.assert_serving()
        stream = self.open()
        self.push(channelName="counted")
        self.named(stream, "counted")
        for name, least in (
                ('qn_http_requests_total{resource="system",method="GET",code="2xx"}', 1),
                ('qn_http_requests_total{resource="system",method="GET",code="4xx"}', 1),
                ('qn_http_requests_total{resource="event",method="GET",code="2xx"}', 1),
                ('qn_logins_total{result="admitted"}', 2),
                ('qn_logins_total{result="no_credentials"}', 2),
                ('qn_http_received_bytes_total', 500), ('qn_http_sent_bytes_total', 1000),
                ('qn_http_gateway_duration_seconds_bucket{le="+Inf"}', 4),
                ('qn_bus_device_duration_seconds_count', 1),
                ('qn_bus_device_duration_seconds_sum', 1e-6),
                ('qn_device_duration_seconds_count{device="1"}', 1),
                ('qn_device_alarms_total{device="1"}', 1), ('qn_stream_parts_sent_total', 1),
                ('qn_streams', 1), ('qn_device_alarm_stream_up{device="1"}', 1)):
            harness.wait_until(lambda: grown(name) >= least, what=f"{name} to grow by {least}")
        stream.close()
        harness.wait_until(lambda: self.metrics()["qn_streams"] == before["qn_streams"])

    def test_a_dead_device_shows_and_spoils_no_readiness(self):
        dead = harness.free_ports(1)[0]
        self.reconfigure(devices=[{"index": "1", "url": f"http://127.0.0.1:{dead}"}])
        for _ in range(3):
            self.client().get(INFO)
        found = self.metrics()
        self.assertEqual(found['qn_device_up{device="1"}'], 0)
        self.assertEqual(found['qn_device_failures_total{device="1",reason="unreachable"}'], 3)
        self.assertEqual(found["qn_ready"], 1)
        self.assertEqual(self.ask("GET", "/readyz").status, 200)
        device = self.ask("GET", "/status.json").json()["devices"]["list"][0]
        self.assertEqual((device["state"], device["lastError"]),
                         ("does not answer", "cannot be reached"))

    @needs("promtool")
    def test_promtool_has_nothing_to_say(self):
        text = self.ask("GET", "/metrics").body.decode()
        checked = run("promtool", "check", "metrics", input=text)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))

    def test_rules_and_dashboard_use_what_there_is(self):
        names = {re.split("[{ ]", name)[0] for name in self.metrics()}
        # What there is only with engines and with HTTPS.
        source = (ROOT / "gateway" / "admin" / "metrics_text.cpp").read_text()
        with_more = {"qn_gateway"} | set(
            re.findall(r'"(qn_(?:engine|redis|cluster|operation_log|tls)_\w+)"', source))
        for file in ("qn-gateway.rules.yml", "grafana-dashboard.json"):
            used = set(re.findall(r"\b(?:qn|process)_[a-z_]+", (MONITORING / file).read_text()))
            self.assertGreater(len(used), 10)
            self.assertEqual(used - names - with_more, set(), file)
        json.loads((MONITORING / "grafana-dashboard.json").read_text())

    @needs("promtool")
    def test_each_rule_is_quiet_and_fires(self):
        tested = run("promtool", "test", "rules", "qn-gateway.rules.test.yml", cwd=MONITORING)
        self.assertEqual(tested.returncode, 0, tested.stdout + tested.stderr)
        rules, tests = ((MONITORING / name).read_text() for name in
                        ("qn-gateway.rules.yml", "qn-gateway.rules.test.yml"))
        alerts = re.findall(r"- alert: (\w+)", rules)
        self.assertGreaterEqual(len(alerts), 12)
        self.assertEqual(alerts, re.findall(r"- name: (\w+)", tests))
        documented = (MONITORING.parents[1] / "docs" / "monitoring.md").read_text()
        self.assertEqual([name for name in alerts if f"`{name}`" not in documented], [])


class ManyDevices(unittest.TestCase):
    def test_series_are_bounded(self):
        count, port = 10000, harness.free_ports(1)[0]
        gateway = harness.Gateway(
            [{"index": str(number), "url": "http://127.0.0.1:9"} for number in range(count)],
            [harness.user("admin", "1")], {"admin": {"port": port}})
        self.addCleanup(gateway.stop)
        with client.Client(port) as one:
            found = harness.series(one.get("/metrics").body.decode())
            self.assertEqual(len(one.get("/status.json?search=99").json()["devices"]["list"]), 200)
        of_devices = [name for name in found if "device=" in name]
        self.assertLessEqual(len(of_devices), PER_DEVICE * count)
        self.assertLessEqual(len(found) - len(of_devices), FIXED)


class Health(unittest.TestCase):
    def test_readiness_falls_before_the_requests_end(self):
        devices = harness.Subdevices(2)
        self.addCleanup(devices.stop)
        admin = harness.free_ports(1)[0]
        gateway = harness.Gateway([{"index": "1", "url": devices.urls[0]}],
                                  [harness.user("admin", "1")], {"admin": {"port": admin}})
        self.addCleanup(gateway.stop)

        def health(name):
            with client.Client(admin) as one:
                answer = one.get(name)
                return answer.status, answer.json()["reasons"]

        for name in ("/livez", "/readyz", "/startupz"):
            self.assertEqual(health(name), (200, []))
        devices.fault(kind="none", delayMs=3000)
        with client.Client(gateway.port, "admin", harness.PASSWORD) as slow:
            asking = threading.Thread(target=lambda: slow.get(INFO))
            asking.start()
            harness.wait_until(lambda: devices.requests(), what="the request at the device")
            gateway.signal(harness.signal.SIGTERM)
            harness.wait_until(lambda: health("/readyz") == (503, ["stopping"]), 2, "readiness")
            self.assertEqual(health("/livez"), (200, []))
            asking.join()


class Draining(unittest.TestCase):
    def test_everything_is_served_while_streams_end_in_small_groups(self):
        users, admin = ("admin", *(f"user{n}" for n in range(5))), harness.free_ports(1)[0]
        devices = harness.Subdevices(len(users))
        self.addCleanup(devices.stop)
        gateway = harness.Gateway(
            [{"index": str(n + 1), "url": url} for n, url in enumerate(devices.urls)],
            [harness.user(name, str(n + 1)) for n, name in enumerate(users)],
            {"admin": {"port": admin}, "http": {"drain_seconds": 8}})
        self.addCleanup(gateway.stop)
        streams = [client.AlertStream(gateway.port, name, harness.PASSWORD) for name in 2 * users]
        ends = []

        def read(stream):
            with contextlib.closing(stream):
                while stream.part():
                    pass
            ends.append(time.monotonic())

        readers = [threading.Thread(target=read, args=(stream,)) for stream in streams]
        for one in readers:
            one.start()
        with client.Client(gateway.port, "admin", harness.PASSWORD) as kept:
            self.assertEqual(kept.get(INFO).status, 200)
            gateway.signal(harness.signal.SIGTERM)
            with client.Client(admin) as one:
                harness.wait_until(lambda: one.get("/readyz").status == 503, 6, "readiness")

            def led_elsewhere():
                answer = kept.get(INFO)
                self.assertEqual(answer.status, 200)
                return answer.headers["Connection"] == "close"

            harness.wait_until(led_elsewhere, 6, "an answer that ends its connection")
        with client.Client(gateway.port, "user1", harness.PASSWORD) as fresh:
            self.assertEqual(fresh.get(INFO).status, 200)
        for one in readers:
            one.join(60)
        self.assertEqual(len(ends), len(streams))
        self.assertGreater(max(ends) - min(ends), 2.5, "six groups or more, a second apart")
        self.assertEqual(gateway.wait(), 0)


class Access(AdminTest):
    def test_each_port_has_its_own_resources(self):
        for url in ("/metrics", "/livez", "/", "/status.json"):
            self.assertEqual(self.ask("GET", url, port=self.gateway.port).status, 404, url)
        for url in (INFO, "/NovGatewayStorage/x.jpg", "/nothing"):
            self.assertEqual(self.ask("GET", url).status, 404, url)
        for method, url in (("POST", "/metrics"), ("GET", "/unlock"), ("DELETE", "/")):
            self.assertEqual(self.ask(method, url).status, 405, url)

    def test_foreign_pages_get_nothing(self):
        own = f"127.0.0.1:{self.port}"
        for method, url, headers, status in (
                ("GET", "/status.json", {"Host": "evil.example"}, 421),
                ("GET", "/status.json", {"Host": f"localhost:{self.port}"}, 200),
                ("POST", "/reload", {"Host": "evil.example", "Origin": "http://evil.example"}, 421),
                ("POST", "/reload", {"Origin": "http://evil.example"}, 403),
                ("POST", "/reload", {"Origin": "null"}, 403),
                ("POST", "/reload", {"Origin": "http://127.0.0.1:1"}, 403),
                ("POST", "/reload", {"Sec-Fetch-Site": "cross-site"}, 403),
                ("POST", "/reload", {"Origin": f"http://{own}", "Sec-Fetch-Site": "same-origin"},
                 200)):
            answer = self.ask(method, url, headers)
            self.assertEqual(answer.status, status, (method, url, headers))
            self.assertIn("default-src 'none'", answer.headers["Content-Security-Policy"])

    def test_a_locked_client_is_let_in_again(self):
        stranger = lambda password: client.Client(self.gateway.port, "admin", password, "127.0.0.9")
        for _ in range(3):
            with stranger("wrong") as one:
                one.get(INFO)
        with stranger(harness.PASSWORD) as one:
            self.assertEqual(one.get(INFO).status, 401)
        logins = self.ask("GET", "/status.json").json()["logins"]
        self.assertEqual([lock["address"] for lock in logins["locks"]], ["127.0.0.9"])
        self.assertEqual(logins["refusals"][0]["user"], "admin")
        self.assertEqual(self.metrics()["qn_login_locked_addresses"], 1)
        for address, status, unlocked in (("127.0.0.8", 200, False), ("127.0.0.9", 200, True),
                                          ("nobody", 400, None), ("", 400, None)):
            answer = self.ask("POST", f"/unlock?address={address}")
            self.assertEqual((answer.status, answer.json().get("unlocked")), (status, unlocked))
        with stranger(harness.PASSWORD) as one:
            self.assertEqual(one.get(INFO).status, 200)

    def test_reload_tells_what_came_of_it(self):
        good = self.gateway.config.read_text()
        self.addCleanup(self.gateway.config.write_text, good)
        self.gateway.config.write_text(good + "\n[htpp]\n")
        answer = self.ask("POST", "/reload")
        self.assertEqual(answer.status, 409)
        self.assertRegex(answer.json()["reason"], "htpp: unknown section")
        self.assertEqual(self.metrics()["qn_configuration_reload_success"], 0)
        moved = harness.free_ports(1)[0]
        self.gateway.config.write_text(good.replace(f"port = {self.port}", f"port = {moved}"))
        self.assertEqual(self.ask("POST", "/reload").json(), {"taken": True})
        def answers():
            try:
                return self.ask("GET", "/livez", port=moved).status == 200
            except OSError:
                return False
        harness.wait_until(answers, what="the listener on its new port")
        self.gateway.config.write_text(good)
        self.gateway.reload()
        harness.wait_until(lambda: self.gateway.log().count("read again") >= 2)


class Login(AdminTest):
    admin = {"username": "ops", "password": "ops-Password1", "metrics_token": "0123456789abcdef"}

    def test_all_but_health_needs_it(self):
        ops = {"user": "ops", "password": "ops-Password1"}
        for url in ("/metrics", "/", "/page.js", "/status.json"):
            self.assertEqual(self.ask("GET", url).status, 401, url)
            self.assertEqual(self.ask("GET", url, **ops).status, 200, url)
        self.assertEqual(self.ask("POST", "/reload").status, 401)
        self.assertEqual(self.ask("GET", "/readyz").status, 200)
        self.assertEqual(self.ask("GET", "/metrics", user="admin",
                                  password=harness.PASSWORD).status, 401)
        bearer = lambda token: {"Authorization": f"Bearer {token}"}
        token = self.admin["metrics_token"]
        self.assertEqual(self.ask("GET", "/metrics", bearer(token)).status, 200)
        self.assertEqual(self.ask("GET", "/metrics", bearer(token[:-1] + "0")).status, 401)
        self.assertEqual(self.ask("GET", "/status.json", bearer(token)).status, 401)

    def test_guessing_is_locked_out(self):
        with client.Client(self.port, "ops", "ops-Password1", "127.0.0.7") as right:
            for _ in range(3):
                with client.Client(self.port, "ops", "guess", "127.0.0.7") as one:
                    one.get("/metrics")
            self.assertEqual(right.get("/metrics").status, 401)


class Page(AdminTest):
    HOSTILE = "<img src=x onerror=document.title='taken'>"

    def test_it_is_small_and_needs_nobody_else(self):
        files = [self.ask("GET", url).body for url in ("/", "/page.css", "/page.js")]
        self.assertLess(sum(len(body) for body in files), 60000)
        for body in files:
            self.assertNotRegex(body, rb"(src|href|url|import)\W{0,3}(https?:)?//")
            self.assertNotRegex(body, rb"innerHTML|insertAdjacent|document\.write|eval\(")

    @needs("chromium")
    def test_a_browser_shows_what_there_is(self):
        stream = self.open()
        self.push(eventType="linedetection", channelID="42", eventDescription=self.HOSTILE)
        self.push(channelName="last")
        self.named(stream, "last")
        with client.Client(self.gateway.port, "<b>x</b>", "wrong") as one:
            one.get(INFO)
        with tempfile.TemporaryDirectory() as folder:
            shown = run("chromium", "--headless", "--no-sandbox", "--disable-gpu",
                        "--disable-dev-shm-usage", f"--user-data-dir={folder}", "--dump-dom",
                        "--virtual-time-budget=8000", f"http://127.0.0.1:{self.port}/").stdout
        self.assertIn("<title>KAVRO gateway</title>", shown)
        for text in ("Takes requests.", "linedetection", ">42<", "&lt;img src=x", ">answers<",
                     "&lt;b&gt;x&lt;/b&gt;", "open</td>", ">admin</th>"):
            self.assertIn(text, shown)
        self.assertNotIn("<img", shown)
