"""Gateways that share Redis and PostgreSQL, for the scenes of cluster.py."""
import contextlib
import json
import os
import pathlib
import shutil
import statistics
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

import client  # noqa: E402
import engines  # noqa: E402
import harness  # noqa: E402

LEASE = 2  # seconds


class Member(harness.Gateway):
    """One gateway. Without `redis` and `postgres` it is by itself."""

    def __init__(self, devices, users, redis=None, postgres=None, sections=None):
        self.admin_port, = harness.free_ports(1)
        all_sections = {"log": {"level": "error"}, "admin": {"port": self.admin_port},
                        "http": {"connections": 16384, "connections_per_address": 16384},
                        "bus": {"device_connections": 64}}
        if redis:
            all_sections["cluster"] = {"redis": redis.url, "lease_seconds": LEASE}
            all_sections["kavro"] = {"nonce_key_file": str(redis.key)}
        if postgres:
            all_sections["storage"] = {"operation_log": postgres.url}
        for name, values in (sections or {}).items():
            all_sections.setdefault(name, {}).update(values)
        super().__init__(devices, users, all_sections)

    def kill(self):
        """kill -9; start() starts it again."""
        self.child.kill()
        self.wait()

    def discard(self):
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)


class Running:
    """What a scene has started; all of it ends with the scene."""

    def __init__(self):
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        return self

    def __exit__(self, *error):
        return self.stack.__exit__(*error)

    def redis(self):
        server = engines.Redis()
        self.stack.callback(server.stop)
        server.key = pathlib.Path(server.folder, "nonce.key")
        server.key.write_bytes(os.urandom(32))
        server.key.chmod(0o600)
        return server

    def postgres(self):
        server = engines.Postgres()
        self.stack.callback(server.stop)
        return server

    def member(self, *arguments, **more):
        gateway = Member(*arguments, **more)
        self.stack.callback(gateway.stop)
        return gateway

    def subdevices(self, count):
        devices = harness.Subdevices(count)
        self.stack.callback(devices.stop)
        return devices

    def folder(self):
        return pathlib.Path(self.stack.enter_context(tempfile.TemporaryDirectory()))

    def child(self, process):
        """A subprocess.Popen."""
        self.stack.callback(process.wait, 10)
        self.stack.callback(process.terminate)

    def process(self, process):
        """A multiprocessing.Process, started."""
        process.daemon = True
        process.start()
        self.stack.callback(process.join, 5)
        self.stack.callback(process.terminate)
        return process


def users_of(devices):
    return [harness.user("admin", "1")] + [harness.user(f"u{n}", str(n)) for n in devices]


def row(text, values, unit):
    """One for plot.py: the median of the rounds and their range."""
    return {"row": text, "ratio": statistics.median(values), "low": min(values),
            "high": max(values), "unit": unit}


def await_engines(*gateways):
    """Until all engines that they know can be used."""
    for gateway in gateways:
        harness.wait_until(lambda: all(value for name, value in metrics(gateway).items()
                                       if name.startswith("qn_engine_up")), 20, "an engine")


def metrics(gateway):
    """The gateway's metrics by name and labels."""
    with client.Client(gateway.admin_port) as one:
        return harness.series(one.get("/metrics").body.decode())
