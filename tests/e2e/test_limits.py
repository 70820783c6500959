"""Nobody can take what others need: descriptors, memory for bodies, ports."""
import contextlib
import pathlib
import re
import resource
import signal
import socket
import time
import unittest

import client
import harness

INFO = "/KAVRO/System/deviceInfo"


class Fixture(unittest.TestCase):
    Gateway = harness.Gateway
    sections = {}

    def setUp(self):
        self.devices = harness.Subdevices(1)
        self.addCleanup(self.devices.stop)
        self.gateway = self.started()

    def started(self, **more):
        gateway = self.Gateway([{"index": "1", "url": self.devices.urls[0]}],
                               [harness.user("admin", "1")], {**self.sections, **more})
        self.addCleanup(gateway.stop)
        return gateway

    def client(self, **more):
        one = client.Client(self.gateway.port, "admin", harness.PASSWORD, **more)
        self.addCleanup(one.close)
        return one

    def strangers(self, count, data=b""):
        """Connections that stay, of addresses of their own."""
        connections = []
        for number in range(count):
            one = socket.socket()
            self.addCleanup(one.close)
            one.bind((f"127.0.1.{number + 1}", 0))
            one.settimeout(10)
            one.connect(("127.0.0.1", self.gateway.port))
            with contextlib.suppress(OSError):  # refused
                one.sendall(data)
            connections.append(one)
        return connections


class FewDescriptors(harness.Gateway):
    command = ("sh", "-c", 'ulimit -n 64 && exec "$0" "$@"', harness.BIN / "qn-gateway")


class Descriptors(Fixture):
    Gateway = FewDescriptors

    def test_strangers_leave_enough_for_devices_files_and_users(self):
        one = self.client()
        self.assertEqual(one.get(INFO).status, 200)
        harness.wait_until(lambda: "connections instead of 8192: of 64 descriptors"
                           in self.gateway.log())
        self.strangers(100, b"GET / HTTP/1.1\r\nHo")
        self.assertEqual(one.get(INFO).status, 200)
        self.assertEqual(harness.upload(one).status, 200)
        self.assertIn("read again", "\n".join(self.gateway.reload()))
        self.assertNotIn("Too many open files", self.gateway.log())


class MoreDescriptors(FewDescriptors):
    command = ("sh", "-c", 'ulimit -n 256 && exec "$0" "$@"', harness.BIN / "qn-gateway")


class Reloaded(Fixture):
    Gateway = MoreDescriptors

    def test_devices_that_a_reload_adds_get_a_reserve(self):
        def most():
            return [int(count) for count in re.findall(r"at most (\d+) conn", self.gateway.log())]

        self.gateway.write_configuration(
            [{"index": str(i), "url": self.devices.urls[0]} for i in range(1, 4)],
            [harness.user("admin", "1")])
        self.gateway.reload()
        self.assertEqual(most(), [154, 124])
        self.strangers(200, b"GET / HTTP/1.1\r\nHo")
        time.sleep(0.5)
        self.assertLess(self.gateway.descriptors(), 256 - 2 * 17)


class Ports(Fixture):
    def test_no_picture_is_taken_while_its_port_is_not_ours(self):
        self.assertEqual(harness.upload(self.client()).status, 200)
        with socket.create_server(("0.0.0.0", 0)) as other:
            self.gateway.sections["network"]["picture_port"] = other.getsockname()[1]
            self.gateway.write_configuration([{"index": "1", "url": self.devices.urls[0]}],
                                             [harness.user("admin", "1")])
            self.gateway.reload()
            self.assertEqual(harness.upload(self.client()).xml().findtext("subStatusCode"),
                             "pictureStoreNotAvailable")

        def is_taken():
            status = harness.upload(self.client()).status
            self.assertIn(status, (200, 503), "refused while nobody listens there yet")
            return status == 200
        harness.wait_until(is_taken, what="the opened port")


class Bodies(Fixture):
    def test_unfinished_ones_of_strangers_stop_no_upload(self):
        head = ("PUT /KAVRO/System/time?format=json HTTP/1.1\r\nHost: h\r\n"
                "Content-Length: 9000000\r\n\r\n")
        self.strangers(32, head.encode() + b"x" * 8_900_000)
        time.sleep(0.5)
        with client.Client(self.gateway.port, timeout=30) as stranger:
            refused = stranger.put("/KAVRO/System/time?format=json", " " * 9_000_000)
            self.assertIn("Digest", refused.headers.get("WWW-Authenticate", ""), refused)
            self.assertEqual(harness.upload(stranger).status, 401)
        one = self.client()
        self.assertEqual(one.get(INFO).status, 200)  # now it knows a nonce
        body = '{"Time": {"timeMode": "NTP"}}' + " " * 9_000_000
        self.assertEqual(one.put("/KAVRO/System/time?format=json", body).status, 200)


class Memory(Fixture):
    def test_sigterm_without_memory_for_a_thread_ends_well(self):
        self.assertEqual(self.client().get(INFO).status, 200)
        pid = self.gateway.child.pid
        pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[0])
        limit = pages * resource.getpagesize() + (7 << 20)  # a thread's stack is larger
        if limit > 1 << 40:
            self.skipTest("the sanitizer needs address space")
        resource.prlimit(pid, resource.RLIMIT_AS, (limit, limit))
        self.gateway.signal(signal.SIGTERM)
        self.assertEqual(self.gateway.wait(), 0, self.gateway.log())
