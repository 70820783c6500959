"""Starting, stopping, reading the configuration again, and the operation log that stays."""
import contextlib
import os
import pathlib
import re
import signal
import sqlite3
import threading
import unittest

import client
import harness

INFO = "/KAVRO/System/deviceInfo"


class CommandLine(unittest.TestCase):
    def test_each_says_what_it_does_or_why_not(self):
        for arguments, status, said in (
                (("--version",), 0, r"\d+\.\d+\.\d+"), (("--help",), 0, "--config"),
                (("--explain", "http.port"), 0, "from 1 to 65535"), (("--explain",), 0, "bus.bytes"),
                (("--print-defaults",), 0, "# port = 8080"), (("--print-manual",), 0, ".TH gateway"),
                (("--print-words",), 0, "http.port"),
                (("--explain", "http.prot"), 2, 'did you mean "http.port"'),
                ((), 2, "--config"), (("--surprise",), 2, "--surprise"),
                (("--config", "/nonexistent/x.toml"), 1, "No such file"),
                (("--config", "/"), 1, "Is a directory")):
            result = harness.run_gateway(*arguments)
            self.assertEqual(result.returncode, status, arguments)
            self.assertRegex(result.stderr if status else result.stdout, said)


class Configuration(harness.GatewayTest):
    def status(self, name):
        with client.Client(self.gateway.port, name, harness.PASSWORD) as one:
            return one.get(INFO).status

    def test_the_configuration_can_be_checked_and_asked(self):
        self.assertEqual(harness.run_gateway("--config", self.gateway.config, "--check-config").returncode, 0)
        broken = self.gateway.folder / "broken.toml"
        broken.write_text('[http]\nport = 0\nprot = 1\n')
        for more in ((), ("--check-config",), ("--print", "http.port")):
            result = harness.run_gateway("--config", broken, *more)
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr, re.escape(str(broken)) + r":2:8: (.|\n)*:3:1: .*prot")
        for key, status, value in (("http.port", 0, f"{self.gateway.port}\n"),
                                   ("users.name", 0, "admin\noperator\nlost\n"),
                                   ("users.password", 2, ""), ("http.prot", 2, "")):
            result = harness.run_gateway("--config", self.gateway.config, "--print", key)
            self.assertEqual((result.returncode, result.stdout), (status, value), result.stderr)

    def test_a_second_gateway_takes_neither_port_nor_data_directory(self):
        folder, sections = self.gateway.folder, self.gateway.sections
        for same, reason, key in (
                ("port", f"port {self.gateway.port}: ", "http.port"),
                ("picture_port", f"port {sections['network']['picture_port']}: ",
                 "network.picture_port"),
                ("data_dir", f"{folder}/data cannot be used: another process",
                 "storage.data_dir")):
            result = harness.run_gateway("--config", self.gateway.elsewhere(same))
            self.assertEqual(result.returncode, 3, same)
            self.assertIn(reason, result.stderr)
            self.assertIn(key, result.stderr, "what to change")
        self.assertEqual(self.status("admin"), 200)

    def test_nobody_else_reads_the_data(self):
        data = self.gateway.folder / "data"
        harness.Process.stop(self.gateway)
        data.chmod(0o755)
        (data / "operation_log.db").chmod(0o644)
        self.gateway.start()
        self.assertEqual(self.status("admin"), 200)
        modes = {path.name: path.stat().st_mode & 0o777 for path in (data, *data.iterdir())}
        self.assertIn("operation_log.db-wal", modes)
        self.assertEqual({name: oct(mode) for name, mode in modes.items()},
                         {name: "0o700" if name in ("data", "pictures") else "0o600"
                          for name in modes})

    def test_an_idle_gateway_is_small(self):
        self.assertEqual(self.status("admin"), 200)
        process = pathlib.Path(f"/proc/{self.gateway.child.pid}")
        self.assertLessEqual(len(os.listdir(process / "task")), 8 + os.cpu_count())
        loaded = set(re.findall(r"/(lib[^/]+?)[.-][^/]*$", (process / "maps").read_text(), re.M))
        self.assertIn("libssl", loaded)
        self.assertFalse(loaded & {"libpq", "libldap", "libkrb5", "libgnutls"}, "PostgreSQL's")

    def test_a_database_needs_its_library(self):
        config = self.gateway.elsewhere()
        config.write_text(config.read_text().replace(
            "[storage]", '[storage]\noperation_log = "postgresql://127.0.0.1:9/none"'))
        os.environ["LD_LIBRARY_PATH"] = str(self.gateway.folder)
        self.addCleanup(os.environ.pop, "LD_LIBRARY_PATH")
        (self.gateway.folder / "libpq.so.5").touch()  # found before the system's, and no library
        result = harness.run_gateway("--config", config)
        self.assertEqual(result.returncode, 3, result.stderr)
        self.assertRegex(result.stderr, r"storage\.operation_log needs .*libpq5.*libpq\.so\.5")

    def test_a_bad_file_changes_nothing(self):
        good = self.gateway.config.read_text()
        self.addCleanup(self.gateway.config.write_text, good)
        for text in ("port = ", good + "[surprise]\n", good.replace('"1"', '1'), "",
                     good.replace('"admin"', '"nimda"')):
            self.gateway.config.write_text(text)
            self.assertIn(str(self.gateway.config), "\n".join(self.gateway.reload()))
            self.assertEqual(self.status("admin"), 200)

    def test_users_and_devices_come_and_go_while_requests_run(self):
        self.assertEqual(self.status("guest"), 401)
        self.devices.order(clearLog=True, fault={"delayMs": 1500, "count": 1})
        results = []
        slow = threading.Thread(target=lambda: results.append(self.status("admin")))
        slow.start()
        harness.wait_until(lambda: self.devices.requests(1))
        self.reconfigure(self.device_tables()[1:],
                         [harness.user("admin", "1"), harness.user("guest", "2")])
        self.assertEqual((self.status("guest"), self.status("admin")), (200, 404))
        slow.join(client.ANSWER_TIME)
        self.assertEqual(results, [200], "a request in flight went on")
        for line in ("a reload changes users, devices", 'login of "guest" from 127.0.0.1'):
            harness.wait_until(lambda line=line: line in self.gateway.log(), what=line)


class LogFile(harness.GatewayTest):
    def test_lines_go_to_the_file_that_is_there(self):
        log, moved = self.gateway.folder / "a.log", self.gateway.folder / "a.log.1"
        self.gateway.sections["log"] = {"file": str(log), "access": "all"}
        self.gateway.write_configuration(self.device_tables(), self.user_tables())
        self.gateway.signal(signal.SIGHUP)
        harness.wait_until(lambda: log.exists() and "read again" in log.read_text())
        self.client().get(INFO)
        harness.wait_until(lambda: f"method=GET url={INFO} status=200" in log.read_text())
        log.rename(moved)
        self.gateway.signal(signal.SIGUSR1)
        harness.wait_until(log.exists, what="the file that was opened anew")
        self.client().get(INFO)
        harness.wait_until(lambda: "status=200" in log.read_text())
        self.assertEqual(log.stat().st_mode & 0o777, 0o600)


class Activation(harness.GatewayTest):
    @classmethod
    def user_tables(cls):
        return []

    def test_without_a_user_nothing_is_served(self):
        answer = self.client().get(INFO)
        self.assertEqual((answer.status, answer.xml().tag), (403, "ResponseStatus"), answer)
        harness.wait_until(lambda: "not activated" in self.gateway.log())


class StoppingUnderLoad(harness.GatewayTest):
    def test_every_request_is_answered_or_refused(self):
        outcomes, stopping = [], threading.Event()

        def load():
            while True:
                try:
                    with client.Client(self.gateway.port, "admin", harness.PASSWORD) as one:
                        for _ in range(20):
                            outcomes.append(one.get(INFO).status)
                except TimeoutError:
                    outcomes.append("no answer")
                except (OSError, client.http.client.HTTPException):
                    if stopping.is_set():  # refused, or closed between two requests
                        return
                    raise

        clients = [threading.Thread(target=load) for _ in range(8)]
        for one in clients:
            one.start()
        harness.wait_until(lambda: len(outcomes) >= 100, 30, "a hundred requests")
        stopping.set()
        self.gateway.signal(signal.SIGTERM)
        self.assertEqual(self.gateway.wait(), 0)
        for one in clients:
            one.join(client.ANSWER_TIME + 5)
            self.assertFalse(one.is_alive())
        self.assertLessEqual(set(outcomes), {200, 503})


class StoppingInFlight(harness.GatewayTest):
    def test_slow_devices_are_waited_for_and_hanging_ones_are_not(self):
        self.devices.fault(1, kind="hang")
        self.devices.fault(2, delayMs=1500)
        answers = {}

        def ask(name):
            with client.Client(self.gateway.port, name, harness.PASSWORD) as one:
                answers[name] = one.get("/KAVRO/System/time")

        waiting = [threading.Thread(target=ask, args=(name,)) for name in ("admin", "operator")]
        for one in waiting:
            one.start()
        harness.wait_until(lambda: self.devices.requests(1) and self.devices.requests(2))
        self.gateway.signal(signal.SIGTERM)
        self.assertEqual(self.gateway.wait(), 0)
        for one in waiting:
            one.join(5)
        self.assertEqual((answers["admin"].status, answers["admin"].json()["subStatusCode"]),
                         (503, "gatewayStopping"))
        self.assertEqual(answers["operator"].status, 200)


class OperationLog(harness.GatewayTest):
    sections = {"storage": {"operation_log_rows": 5}}

    def database(self):
        return self.gateway.folder / "data" / "operation_log.db"

    def rows(self):
        with contextlib.closing(sqlite3.connect(f"file:{self.database()}?mode=ro",
                                                uri=True)) as database:
            return database.execute("SELECT user, client_ip, operation, category, result, status "
                                    "FROM operation_log ORDER BY id").fetchall()

    def has_rows(self):
        try:
            return len(self.rows()) >= 3
        except sqlite3.OperationalError:  # no file, or no table in it yet
            return False

    def test_modifying_requests_leave_rows_to_the_limit_and_no_others(self):
        one = self.client()
        one.get(INFO)
        one.put("/KAVRO/Security/sessionHeartbeat")
        one.put("/KAVRO/System/time?format=json", '{"Time": {"timeMode": "NTP"}}')
        one.get("/KAVRO/Security/userCheck")
        self.assertEqual(client.Client(self.gateway.port).put("/KAVRO/x", "{}").status, 401)
        self.client(source="127.0.0.2").put("/KAVRO/" + "x" * 300)
        expected = [("admin", "127.0.0.1", "PUT /KAVRO/System/time?format=json", "Device", "Fail",
                     200),
                    ("admin", "127.0.0.1", "GET /KAVRO/Security/userCheck", "Device", "Fail", 200),
                    ("admin", "127.0.0.2", ("PUT /KAVRO/" + "x" * 300)[:256], "Device", "Fail",
                     403)]
        harness.wait_until(lambda: self.has_rows() and self.rows()[-1][-1], what="the answers")
        self.assertEqual(self.rows(), expected)
        for number in range(4):
            one.delete(f"/KAVRO/Number/{number}")
        self.gateway.signal(signal.SIGTERM)
        self.gateway.wait()
        self.assertEqual([row[2] for row in self.rows()],
                         [expected[2][2]] + [f"DELETE /KAVRO/Number/{n}" for n in range(4)])
