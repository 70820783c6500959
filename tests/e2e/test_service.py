"""What the gateway tells the service manager, and what it does when a reactor is stuck."""
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

import client
import harness


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
        period = 1.0
        manager, gateway = self.start(False, int(period * 1e6), os.environ["QN_STUCK_MODULE"])
        self.addCleanup(gateway.wait)
        self.addCleanup(gateway.child.kill)
        for _ in range(3):
            self.assertEqual(manager.next("WATCHDOG", period), {"WATCHDOG": "1"})
        with socket.create_connection(("127.0.0.1", gateway.port)) as stuck:
            stuck.sendall(b"GET /stuck HTTP/1.1\r\nHost: x\r\n\r\n")
            deadline = time.monotonic() + 10
            while manager.message(3 * period):
                self.assertLess(time.monotonic(), deadline, "fed though a reactor is stuck")


class Unit(unittest.TestCase):
    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_unit_leaves_the_service_little_to_do_harm_with(self):
        unit = pathlib.Path(__file__).parents[2] / "packaging" / "qn-gateway.service"
        result = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=12",
                                 "--no-pager", str(unit)], capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stdout[-1000:] + result.stderr)


if __name__ == "__main__":
    unittest.main()
