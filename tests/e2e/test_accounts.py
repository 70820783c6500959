"""The commands that change users and devices, beside a gateway that runs."""
import concurrent.futures
import json
import os
import pathlib
import pty
import re
import subprocess
import time

import client
import harness

INFO = "/KAVRO/System/deviceInfo"
COMMENT = "# the night's own\n"


class Accounts(harness.StreamTest):
    """Users and devices stand in accounts.toml."""

    sections = {"lock": {"max_attempts": 3}}

    @classmethod
    def setUpClass(cls):
        cls.devices = harness.Subdevices(2)
        cls.addClassCleanup(cls.devices.stop)
        cls.gateway = harness.Gateway([], [], cls.sections, include=["accounts.toml"])
        cls.addClassCleanup(cls.gateway.stop)
        cls.accounts = cls.gateway.folder / "accounts.toml"
        cls.password = cls.gateway.folder / "password"
        cls.password.write_text(harness.PASSWORD + "\n")
        cls.password.chmod(0o600)

    def setUp(self):
        self.accounts.write_text(COMMENT + harness.configuration_text(
            {}, self.user_tables(), self.device_tables()))
        self.accounts.chmod(0o600)
        self.gateway.reload()

    def command(self, *words, status=0, **more):
        result = subprocess.run([harness.BIN / "qn-gateway", "--config", self.gateway.config, *words],
                                capture_output=True, text=True, timeout=60, **more)
        self.assertEqual(result.returncode, status, result)
        return result

    def status(self, name, password=harness.PASSWORD):
        with client.Client(self.gateway.port, name, password) as one:
            return one.get(INFO).status

    def test_users_come_change_and_go_while_the_gateway_runs(self):
        self.assertEqual(self.status("guest"), 401)
        said = self.command("user", "add", "guest", "--device", "2", "--password-file", "-",
                            input=harness.PASSWORD + "\n").stdout
        self.assertIn("the running gateway has taken it", said)
        self.assertEqual(self.status("guest"), 200)
        text = self.accounts.read_text()
        self.assertTrue(text.startswith(COMMENT))
        self.assertNotIn(harness.PASSWORD, text.split('"guest"')[1])
        other = self.gateway.folder / "other"
        other.write_text("other-Password1")
        self.command("user", "passwd", "guest", "--password-file", other)
        self.assertEqual((self.status("guest"), self.status("guest", "other-Password1")), (401, 200))
        self.assertIn("guest", self.command("user", "list").stdout)
        listed = json.loads(self.command("user", "list", "--json").stdout)
        self.assertEqual({one["name"]: one["device"] for one in listed},
                         {"admin": "1", "operator": "2", "lost": "9", "guest": "2"})
        self.command("user", "del", "guest")
        self.assertEqual(self.status("guest", "other-Password1"), 401)
        self.assertEqual(self.accounts.stat().st_mode & 0o777, 0o600)

    def test_what_is_not_allowed_changes_nothing_and_says_why(self):
        before = self.accounts.read_text()
        for words, status, why in (
                (("user", "add", "admin", "--device", "1", "--password-file", self.password), 1,
                 'user "admin" is there already'),
                (("user", "add", "a:b", "--device", "1", "--password-file", self.password), 1,
                 r"accounts.toml:\d+:\d+: users.name: expected a string"),
                (("user", "add", "x", "--password-file", self.password), 2, "--device"),
                (("user", "add", "x", "--device", "1", "--password-file", "/dev/null"), 3, "one line"),
                (("user", "add", "x", "--device", "1", "--password", "p"), 2, "--password"),
                (("user", "passwd", "nobody", "--password-file", self.password), 1, "is not there"),
                (("user", "del", "admin"), 1, 'expected the user "admin"'),
                (("device", "add", "3", "--url", "ftp://h"), 1, "devices.url: expected a string"),
                (("device", "set", "1", "--http-port", "x"), 1, "http_port: expected an integer"),
                (("device", "set", "1", "--username", "u", "--password-file", "/none"), 3, "No such"),
                (("user",), 2, "subcommand"), (("unlock", "x"), 3, "expected an IP address")):
            self.assertRegex(self.command(*words, status=status).stderr, why)
            self.assertEqual(self.accounts.read_text(), before)
        self.assert_serving()

    def test_commands_at_once_lose_no_entry(self):
        names = [f"user{number}" for number in range(12)]
        with concurrent.futures.ThreadPoolExecutor(len(names)) as threads:
            list(threads.map(lambda name: self.command(
                "user", "add", name, "--device", "1", "--password-file", self.password), names))
        self.assertEqual([self.status(name) for name in names], [200] * len(names))

    def test_streams_and_connections_of_who_is_gone_or_bound_anew_end_soon(self):
        for words in (("user", "set", "operator", "--device", "1"),
                      ("user", "passwd", "operator", "--password-file", "-"),
                      ("user", "del", "operator")):
            self.setUp()
            kept, stream = self.open("admin"), self.open("operator")
            idle = self.client("operator")
            self.assertEqual(idle.get(INFO).status, 200)
            self.command(*words, input="another-Password1\n")
            begun = time.monotonic()
            while stream.part():
                pass
            self.assertLess(time.monotonic() - begun, 4, "a second, on a quiet machine")
            answer = idle.get(INFO)  # its login is checked again
            if words[1] == "set":
                self.assertIn(b"IPCamera 1", answer.body)
            else:
                self.assertEqual(answer.status, 401)
            self.push(1, channelName="still")
            self.named(kept, "still")
            kept.close()

    def test_locked_addresses_are_shown_and_let_in(self):
        while self.status("admin", "wrong") != 401 or not self.locks():
            pass
        self.assertEqual(self.status("admin"), 401)
        self.assertIn("127.0.0.1", self.command("lock", "list").stdout)
        self.assertIn("not locked any more", self.command("unlock", "127.0.0.1").stdout)
        self.assertEqual((self.locks(), self.status("admin")), ([], 200))
        self.assertIn("was not locked", self.command("unlock", "127.0.0.1").stdout)

    def locks(self):
        return json.loads(self.command("lock", "list", "--json").stdout)

    def test_the_terminal_is_asked_twice_and_shows_nothing(self):
        for typed, status in ((("pw-1234", "pw-1234"), 0), (("pw-1234", "other"), 3)):
            shown, ended = self.at_a_terminal(
                typed, "user", "passwd", "operator")
            self.assertEqual(ended, status, shown)
            self.assertNotIn("pw-1234", shown)
        self.assertEqual(self.status("operator", "pw-1234"), 200)

    def at_a_terminal(self, typed, *words):
        child, terminal = pty.fork()
        if child == 0:
            os.execv(harness.BIN / "qn-gateway",
                     ["qn-gateway", "--config", str(self.gateway.config), *words])
        shown = ""
        for prompt, answer in zip(("password of", "the same again"), typed):
            while prompt not in shown:
                shown += os.read(terminal, 1024).decode()
            os.write(terminal, answer.encode() + b"\n")
        try:
            while piece := os.read(terminal, 1024):
                shown += piece.decode()
        except OSError:
            pass  # it has ended
        os.close(terminal)
        return shown, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


class Alone(harness.unittest.TestCase):
    """Without a running gateway."""

    def setUp(self):
        self.folder = pathlib.Path(harness.tempfile.mkdtemp(prefix="qn-e2e-"))
        self.addCleanup(harness.shutil.rmtree, self.folder)
        self.config = self.folder / "gateway.toml"
        self.sections = {"storage": {"data_dir": str(self.folder / "data")}}

    def write(self, include, users):
        text = f"include = {json.dumps(include)}\n" if include else ""
        self.config.write_text(text + harness.configuration_text(self.sections, users, []))
        self.config.chmod(0o640)

    def add(self, name="guest"):
        return subprocess.run([harness.BIN / "qn-gateway", "--config", self.config, "user", "add", name,
                               "--device", "1", "--password-file", "-"], input="pw\n",
                              capture_output=True, text=True, timeout=60)

    def test_the_first_included_file_is_made_and_written(self):
        self.write([], [])
        self.assertRegex(self.add().stderr, re.escape('include = ["accounts.toml"]'))
        (self.folder / "b.toml").write_text("# b\n")
        self.write(["a.toml", "b.toml"], [{"name": "admin", "device": "1",
                                           "password_file": "credential:admin"}])
        result = self.add()
        self.assertEqual(result.returncode, 0, result)
        self.assertIn("no gateway is running", result.stdout)
        self.assertEqual((self.folder / "a.toml").stat().st_mode & 0o777, 0o640)
        self.assertEqual((self.folder / "b.toml").read_text(), "# b\n")
        self.assertIn("is there already", self.add().stderr)
        moved = subprocess.run([harness.BIN / "qn-gateway", "--config", self.config, "user", "del",
                                "admin"], capture_output=True, text=True, timeout=60)
        self.assertRegex(moved.stderr, "does not stand in .*a.toml")

    def test_manual_and_completion_know_every_command_and_option(self):
        root = pathlib.Path(__file__).parents[2] / "packaging"
        manual = (root / "man" / "qn-gateway.1").read_text().replace("\\-", "-")
        for line in harness.run_gateway("--print-commands").stdout.splitlines():
            for word in line.split():
                self.assertIn(word, manual)
        for shell in ("qn-gateway.bash", "_qn-gateway"):
            self.assertIn("--print-commands", (root / "completion" / shell).read_text())
