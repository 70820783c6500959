"""Starts the real processes for the tests, on free ports, and stops them."""
import itertools
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

import client

BIN = pathlib.Path(os.environ.get(
    "QN_BIN_DIR", pathlib.Path(__file__).parents[2] / "build" / "bin")).resolve()
START_TIME = 30  # seconds for a process to be ready; a sanitizer build on a busy machine is slow
STOP_TIME = 10   # seconds a stopping gateway may take, as an operator is promised
PASSWORD = "e2e-Password1"
REPORTS = ("AddressSanitizer", "LeakSanitizer", "ThreadSanitizer", "runtime error:")


def _ports():
    """Ports of loopback that nobody else is given: of ranges that are this process's while it lives, since
    whoever has one has bound its name (tests/contract/ports.h does the same). All are below those that
    the system gives to connections."""
    names = []  # stay bound
    for number in range(os.getpid(), os.getpid() + 64):
        first = 10240 + number % 64 * 352
        names.append(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        try:
            names[-1].bind(f"\0qn-test-ports-{first}")
        except OSError:
            continue  # another test's
        yield from filter(_is_free, random.sample(range(first, first + 352), 352))


def _is_free(port):
    with socket.socket() as probe:
        try:
            probe.bind(("127.0.0.1", port))
            return True
        except OSError:
            return False


PORTS = _ports()


def free_ports(count):
    """Never one twice."""
    return list(itertools.islice(PORTS, count))


def series(text):
    """Of metrics: the values by the series' names and labels."""
    return {line.rsplit(" ", 1)[0]: float(line.rsplit(" ", 1)[1])
            for line in text.splitlines() if line and not line.startswith("#")}


def wait_until(condition, seconds=60, what="the condition"):
    """Polls until the condition holds and returns its value; fails after the given time. That is ample by
    default: on a busy machine things take ten times as long. Less is a promise that is checked."""
    deadline = time.monotonic() + seconds
    while True:
        if value := condition():
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} did not come true within {seconds} s")
        time.sleep(0.02)


def allow_many_descriptors():
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


class Process:
    """A child process whose standard error is kept."""

    def __init__(self, *command, stdout=subprocess.DEVNULL, stdin=None):
        self.child = subprocess.Popen([str(part) for part in command], stdout=stdout, stdin=stdin,
                                      stderr=subprocess.PIPE, text=True, errors="replace")
        self.lines = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        with self.child.stderr:
            for line in self.child.stderr:
                self.lines.append(line.rstrip("\n"))

    def log(self):
        return "\n".join(self.lines)

    def signal(self, number):
        self.child.send_signal(number)

    def wait(self, seconds=STOP_TIME):
        """The exit status; a process that is still there after that time is killed and fails."""
        try:
            status = self.child.wait(seconds)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()
            raise AssertionError(f"still running after {seconds} s\n{self.log()[-4000:]}") from None
        finally:
            self.reader.join(5)
        return status

    def stop(self):
        """SIGTERM; the process must end well and no sanitizer may have had anything to report."""
        if self.child.poll() is None:
            self.signal(signal.SIGTERM)
        status = self.wait()
        log = self.log()
        if status != 0 or any(report in log for report in REPORTS):
            raise AssertionError(f"exit status {status}\n{log[-8000:]}")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.child.pid}/fd"))


class Subdevices(Process):
    """One qn-subdevice process; devices are numbered from 1."""

    def __init__(self, count=2, *options):
        super().__init__(BIN / "qn-subdevice", "--port", "0", "--devices", count,
                         "--alarm-interval", "0", *options, stdout=subprocess.PIPE)
        self.urls = []
        for _ in range(count):
            line = self.child.stdout.readline()
            if not line:
                raise AssertionError(f"qn-subdevice did not start\n{self.log()}")
            self.urls.append(line.split()[2])

    def stop(self):
        super().stop()
        self.child.stdout.close()

    def port(self, number=1):
        return int(self.urls[number - 1].rsplit(":", 1)[1])

    def state(self, number=1):
        """The device's counters, and its newest requests under "log"."""
        with client.Client(self._any_port()) as control:
            return control.get(f"/control?device={number}").json()

    def requests(self, number=1):
        return [(entry["method"], entry["url"]) for entry in self.state(number)["log"]]

    def order(self, number=1, **orders):
        with client.Client(self._any_port()) as control:
            answer = control.post(f"/control?device={number}", json.dumps(orders))
        if answer.status != 200:
            raise AssertionError(f"the control resource refused {orders}: {answer}")

    def fault(self, number=1, **fault):
        self.order(number, fault=fault)

    def no_fault(self):
        for number in range(1, len(self.urls) + 1):
            self.order(number, fault=None, alertStream={}, clearLog=True)

    def _any_port(self):
        # The last device is never switched off by a test.
        return self.port(len(self.urls))


def configuration_text(sections, users, devices, include=()):
    tables = [(f"[{name}]", values) for name, values in sections.items()
              if not isinstance(values, list)]
    tables += [(f"[[{name}]]", table) for name, values in sections.items()
               if isinstance(values, list) for table in values]
    tables += [("[[users]]", table) for table in users] + [("[[devices]]", table) for table in devices]
    # JSON's notation serves for TOML's strings, numbers and lists.
    top = f"include = {json.dumps(include)}\n" if include else ""
    return top + "".join(head + "\n" + "".join(f"{key} = {json.dumps(value)}\n"
                                         for key, value in table.items()) for head, table in tables)


def user(name, device, **more):
    return {"name": name, "password": PASSWORD, "device": device, **more}


FACES = "/KAVRO/Intelligent/FDLib/FaceDataRecord"
JPEG = b"\xff\xd8\xff\xe0" + bytes(range(256)) * 800 + b"\r\n--x\r\n\xff\xd9"


def upload(one, name="1", kind="image/jpeg"):
    """The answer to a face's record and picture."""
    body = (f'--form\r\nContent-Type: application/json\r\n\r\n{{"FaceInfo": {{"employeeNo": "{name}"}}}}'
            f"\r\n--form\r\nContent-Type: {kind}\r\n\r\n").encode() + JPEG + b"\r\n--form--\r\n"
    return one.post(FACES + "?format=json", body, headers={
        "Content-Type": 'multipart/form-data; boundary="form"'})


def run_gateway(*arguments):
    """One that ends by itself."""
    return subprocess.run([str(BIN / "qn-gateway"), *map(str, arguments)],
                          capture_output=True, text=True, timeout=60)


class Gateway(Process):
    """One qn-gateway process with a configuration file of its own."""

    command = (BIN / "qn-gateway",)

    def __init__(self, devices, users, sections=None, include=()):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="qn-e2e-"))
        self.config = self.folder / "gateway.toml"
        self.port, picture_port = free_ports(2)
        self.sections = {"http": {"port": self.port}, "network": {"picture_port": picture_port},
                         "storage": {"data_dir": str(self.folder / "data")}}
        for name, values in (sections or {}).items():
            if isinstance(values, list):
                self.sections[name] = values
            else:
                self.sections.setdefault(name, {}).update(values)
        self.include = include
        for name in include:
            (self.folder / name).touch()
        self.write_configuration(devices, users)
        self.start()

    def start(self):
        """Returns when its port is open; also starts it again, on its files, when it has ended."""
        super().__init__(*self.command, "--config", self.config)
        try:
            wait_until(self._ready, START_TIME, "the gateway's port")
        except AssertionError:
            self.child.kill()
            self.wait()
            raise AssertionError(f"the gateway did not start\n{self.log()}") from None

    def _ready(self):
        if self.child.poll() is not None:
            raise AssertionError("ended")
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def write_configuration(self, devices, users):
        self.config.write_text(configuration_text(self.sections, users, devices, self.include))

    def elsewhere(self, *same):
        """The path of its configuration with other values, except these, for what only one has."""
        text = self.config.read_text()
        ports = free_ports(2)
        for key, value in (("port", ports[0]), ("picture_port", ports[1]),
                           ("data_dir", f'"{self.folder}/data2"')):
            if key not in same:
                text = re.sub(f"^{key} = .*", f"{key} = {value}", text, flags=re.M)
        other = self.folder / "other.toml"
        other.write_text(text)
        return other

    def reload(self):
        """SIGHUP; returns when the gateway has said what came of it."""
        before = len(self.lines)
        self.signal(signal.SIGHUP)
        return wait_until(lambda: [line for line in self.lines[before:] if "configuration" in line],
                          what="the reload")

    def stop(self):
        super().stop()
        shutil.rmtree(self.folder, ignore_errors=True)


class GatewayTest(unittest.TestCase):
    """Two devices, one gateway and three users for all tests of a class: "admin" on device 1,
    "operator" on device 2, "lost" on a device that does not exist."""

    sections = {}
    device_count = 2
    device_options = ()

    @classmethod
    def setUpClass(cls):
        cls.devices = Subdevices(cls.device_count, *cls.device_options)
        cls.addClassCleanup(cls.devices.stop)
        cls.gateway = Gateway(cls.device_tables(), cls.user_tables(), cls.sections)
        cls.addClassCleanup(cls.gateway.stop)

    @classmethod
    def device_tables(cls):
        return [{"index": str(number + 1), "url": url}
                for number, url in enumerate(cls.devices.urls)]

    @classmethod
    def user_tables(cls):
        return [user("admin", "1"), user("operator", "2"), user("lost", "9")]

    def tearDown(self):
        self.devices.no_fault()

    def reconfigure(self, devices=None, users=None):
        """Puts other devices or users in force, for the rest of the test."""
        def reload(devices, users):
            self.gateway.write_configuration(devices, users)
            return self.gateway.reload()

        self.addCleanup(reload, self.device_tables(), self.user_tables())
        return reload(devices or self.device_tables(), users or self.user_tables())

    def client(self, name="admin", password=PASSWORD, **more):
        one = client.Client(self.gateway.port, name, password, **more)
        self.addCleanup(one.close)
        return one

    def assert_serving(self, name="admin"):
        """A fresh client gets a proper answer."""
        with client.Client(self.gateway.port, name, PASSWORD) as fresh:
            answer = fresh.get("/KAVRO/System/deviceInfo")
        self.assertEqual((answer.status, answer.xml().tag), (200, "DeviceInfo"), answer)


class StreamTest(GatewayTest):
    """Alert streams of "admin" on device 1 and "operator" on device 2."""

    def open(self, name="admin"):
        """A stream once there is a place for it, and the device's own stream stands."""
        def opened():
            stream = client.AlertStream(self.gateway.port, name, PASSWORD)
            if stream.status == 200:
                return stream
            stream.close()
            self.push(number)  # a place is free when a push to the client that left has failed
            return None

        number = 1 if name == "admin" else 2
        stream = wait_until(opened, what="a place for a stream")
        self.addCleanup(stream.close)
        self.wait_for_feed(number)
        return stream

    def wait_for_feed(self, number=1, seconds=60):
        wait_until(lambda: self.devices.state(number)["alertStreams"] == 1, seconds,
                           "the gateway's stream to the device")

    def push(self, number=1, **alert):
        self.devices.order(number, alarm={"count": 1, "alert": alert})

    def named(self, stream, name):
        """The next alarm whose channel has the given name, as (type, body)."""
        while part := stream.alarm():
            if name.encode() in part[1]:
                return part
        raise AssertionError("the stream ended")
