"""What the gateway tells the service manager, and what it does when a reactor is stuck."""
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import subprocess
import tempfile
import time
import unittest

import client
import harness

INFO = "/KAVRO/System/deviceInfo"


class Manager:
    """A service manager's side of the notify socket."""

    def __init__(self, abstract, watchdog=0):
        folder = tempfile.mkdtemp(prefix="qn-e2e-")
        name = f"@qn-{os.path.basename(folder)}" if abstract else f"{folder}/notify"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("\0" + name[1:] if abstract else name)
        self.environment = {"NOTIFY_SOCKET": name}
        if watchdog:
            self.environment["WATCHDOG_USEC"] = str(watchdog)

    def message(self, seconds=20):
        """The next one as a dictionary; empty when none comes in time."""
        self.socket.settimeout(seconds)
        try:
            lines = self.socket.recv(65536).decode().split("\n")
        except TimeoutError:
            return {}
        return dict(line.split("=", 1) for line in lines)

    def next(self, name, seconds=20):
        """The next message that has the name; signs of life come at any time."""
        while message := self.message(seconds):
            if name in message:
                return message
        raise AssertionError(f"no {name}")


class ServiceTest(unittest.TestCase):
    def start(self, abstract=False, watchdog=0, module=None):
        manager = Manager(abstract, watchdog)
        self.addCleanup(manager.socket.close)
        os.environ.update(manager.environment)
        self.addCleanup(lambda: [os.environ.pop(name, None) for name in manager.environment])
        command = harness.Gateway.command
        self.addCleanup(setattr, harness.Gateway, "command", command)
        if module:
            harness.Gateway.command = (*command, "--module", module)
        gateway = harness.Gateway([{"index": "1", "url": "http://127.0.0.1:9"}],
                                  [harness.user("admin", "1")])
        return manager, gateway

    def test_ready_reloading_stopping(self):
        for abstract in (False, True):
            manager, gateway = self.start(abstract)
            said = manager.message()
            self.assertEqual((said["READY"], said["STATUS"]),
                             ("1", f"serving 1 device(s) on 127.0.0.1 port {gateway.port}"))
            good = gateway.config.read_text()
            for text, status in ((good + "[lgo]\n[lgo2]\n", r"not changed: .*:\d+:2: lgo: .*1 more"),
                                 (good, "serving 1")):
                gateway.config.write_text(text)
                before = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000
                gateway.reload()
                said = manager.next("RELOADING")
                self.assertGreaterEqual(int(said["MONOTONIC_USEC"]), before)
                self.assertRegex(manager.next("READY")["STATUS"], status)
            gateway.signal(signal.SIGTERM)
            self.assertIn("signal 15", manager.next("STOPPING")["STATUS"])
            gateway.stop()

    def test_the_watchdog_is_fed_until_a_reactor_is_stuck(self):
        period = 2.0  # told at half of it
        manager, gateway = self.start(False, int(period * 1e6), os.environ["QN_STUCK_MODULE"])
        self.addCleanup(gateway.wait)
        self.addCleanup(gateway.child.kill)
        for _ in range(3):
            self.assertEqual(manager.next("WATCHDOG", period), {"WATCHDOG": "1"})
        with socket.create_connection(("127.0.0.1", gateway.port)) as stuck:
            stuck.sendall(b"GET /stuck HTTP/1.1\r\nHost: x\r\n\r\n")
            deadline = time.monotonic() + 20
            while manager.message(3 * period):
                self.assertLess(time.monotonic(), deadline, "fed though a reactor is stuck")


class Reload(harness.StreamTest):
    """Everything changes at once; nothing that is open notices."""

    idle, device_count = 100, 5

    @classmethod
    def user_tables(cls):
        return [harness.user("admin", "1")] + [harness.user(f"user{number}", str(number))
                                               for number in range(1, cls.device_count + 1)]

    def streams(self):
        """Two for each device, as many as there may be."""
        for number in range(1, self.device_count + 1):
            for _ in range(2):
                stream = client.AlertStream(self.gateway.port, f"user{number}", harness.PASSWORD)
                self.addCleanup(stream.close)
                self.assertEqual(stream.status, 200)
                yield number, stream
            self.wait_for_feed(number)

    def status_at(self, port):
        try:
            with client.Client(port) as one:
                return one.get("/").status
        except ConnectionRefusedError:
            return None

    def test_every_section_is_taken_and_what_is_open_stays(self):
        gateway, (port, picture_port, device_port) = self.gateway, harness.free_ports(3)
        old = gateway.port
        idle = [self.client() for _ in range(self.idle)]
        self.assertEqual({one.get(INFO).status for one in idle}, {200})
        addresses = [one.connection.sock.getsockname() for one in idle]
        streams = list(self.streams())
        gateway.sections = {
            "http": {"address": "0.0.0.0", "port": port, "head_bytes": 2048, "idle_seconds": 500,
                     "connections": 2 * self.idle, "connections_per_address": 2 * self.idle},
            "network": {"picture_port": picture_port, "rtsp_port": 5554}, "kavro": {"mode": 2},
            "lock": {"max_attempts": 3}, "pictures": {"max_count": 5},
            "bus": {"device_connections": 2},
            "log": {"level": "warn"},
            "storage": {"data_dir": str(gateway.folder / "data2"), "operation_log_rows": 2}}
        tables = self.device_tables()
        tables[1]["http_port"] = device_port
        gateway.write_configuration(tables, self.user_tables())
        gateway.signal(signal.SIGHUP)
        harness.wait_until(lambda: self.status_at(port), what="the new port")
        harness.wait_until(lambda: "storage.data_dir takes effect after a restart" in gateway.log())
        self.assertFalse((gateway.folder / "data2").exists())
        gateway.port = port
        self.assertIsNone(self.status_at(old))
        for further in (picture_port, device_port):
            harness.wait_until(lambda: self.status_at(further) == 404, what="a further port")
        self.assertEqual({one.get(INFO).status for one in idle}, {200})
        self.assertEqual([one.connection.sock.getsockname() for one in idle], addresses)
        self.assertEqual(idle[0].get("/KAVRO/" + "x" * 3000).status, 431)
        for number in range(5):
            idle[1].delete(f"/KAVRO/{number}")
        database = sqlite3.connect(f"file:{gateway.folder}/data/operation_log.db?mode=ro", uri=True)
        self.addCleanup(database.close)
        harness.wait_until(lambda: [operation for operation, in database.execute(
            "SELECT operation FROM operation_log")] == ["DELETE /KAVRO/3", "DELETE /KAVRO/4"])
        for number, stream in streams:
            self.push(number, channelName="after")
            self.assertIn(b"after", self.named(stream, "after")[1])


class Unit(unittest.TestCase):
    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_unit_leaves_the_service_little_to_do_harm_with(self):
        unit = pathlib.Path(__file__).parents[2] / "packaging" / "qn-gateway.service"
        result = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=12",
                                 "--no-pager", str(unit)], capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stdout[-1000:] + result.stderr)


if __name__ == "__main__":
    unittest.main()
