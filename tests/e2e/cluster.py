"""Several gateways as one, for tests and measurements: with engines, devices, and a relay between
each gateway and each engine that can cut it off."""
import collections
import os
import pathlib
import signal
import subprocess
import sys
import time

import client
import engines
import harness

LEASES = ("local found = {} for _, key in ipairs(redis.call('KEYS', 'qn:1:feed:*')) do "
          "found[#found + 1] = key .. ' ' .. redis.call('GET', key) end return found")


def nonce_key(folder):
    key = pathlib.Path(folder, "nonce.key")
    key.write_bytes(os.urandom(32))
    key.chmod(0o600)
    return key


class Member(harness.Gateway):
    """One of the gateways, with an admin port."""

    def __init__(self, number, devices, users, key, redis, postgres=None, **sections):
        self.admin_port, = harness.free_ports(1)
        super().__init__(devices, users, {
            "admin": {"port": self.admin_port}, "kavro": {"nonce_key_file": str(key)},
            "http": {"trusted_proxies": ["127.0.0.9"]}, "lock": {"lock_seconds": 60},
            "cluster": {"name": f"gateway{number}", "redis": redis, "lease_seconds": 2},
            "storage": {"operation_log": postgres} if postgres else {}} | sections)

    def health(self):
        with client.Client(self.admin_port) as one:
            answer = one.get("/readyz")
        return answer.status, answer.json().get("without", [])

    def metric(self, name):
        with client.Client(self.admin_port) as one:
            return harness.series(one.get("/metrics").body.decode())[name]

    def number(self):
        """That of the process, under which Redis knows it: its nonces carry it."""
        with client.Client(self.port) as one:
            challenge = one.get("/KAVRO/System/deviceInfo").headers["WWW-Authenticate"]
        return client.parse_challenge(challenge)["nonce"][24:32]


class Relays(harness.Process):
    """Between "ENGINE GATEWAY" and an engine; `ports` by these names."""

    def __init__(self, targets):
        super().__init__(sys.executable, pathlib.Path(__file__).parent / "relay.py",
                         *targets.values(), stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.names = list(targets)
        self.ports = dict(zip(targets, map(int, self.child.stdout.readline().split())))

    def set(self, name, mode):
        self.child.stdin.write(f"{self.names.index(name)} {mode}\n")
        self.child.stdin.flush()
        if self.child.stdout.readline() != "done\n":
            raise AssertionError(f"the relay has ended\n{self.log()}")

    def stop(self):
        self.child.stdin.close()
        self.wait()
        self.child.stdout.close()


class Cluster:
    """Three gateways with `devices` simulated ones and a user for each. `down`: gateways that are
    killed or stopped now."""

    LEASE = 2  # seconds
    LIMIT = 5  # wrong logins

    def __init__(self, devices, cleanup):
        """`cleanup` is called with what ends it all, part by part."""
        harness.allow_many_descriptors()
        self.indexes = range(1, devices + 1)
        self.devices = harness.Subdevices(devices)
        cleanup(self.devices.stop)
        self.redis = engines.Redis()
        cleanup(self.redis.stop)
        self.postgres = engines.Postgres()
        cleanup(self.postgres.stop)
        ends = {"redis": str(self.redis.port), "postgres": f"{self.postgres.folder}/.s.PGSQL.5432"}
        self.relays = Relays({f"{engine} {number}": target for engine, target in ends.items()
                              for number in range(3)})
        cleanup(self.relays.stop)
        tables = [{"index": str(number), "url": url}
                  for number, url in enumerate(self.devices.urls, 1)]
        users = [harness.user("admin", "1")] + [
            harness.user(f"user{number}", str(number)) for number in self.indexes]
        key = nonce_key(self.redis.folder)
        self.down = set()
        self.lives = collections.Counter()  # of each gateway, those that were killed
        self.ends = {}  # when, by gateway and life
        self.gateways = []
        for number in range(3):
            ports = self.relays.ports
            redis = self.redis.url.replace(str(self.redis.port), str(ports[f"redis {number}"]))
            postgres = f"postgresql://qn@127.0.0.1:{ports[f'postgres {number}']}/postgres"
            self.gateways.append(Member(number + 1, tables, users, key, redis, postgres,
                                        lock={"lock_seconds": 600}))
            cleanup(self.gateways[-1].stop)

    def kill(self, number):
        """Down until the caller has its clients back."""
        self.down.add(number)
        gateway = self.gateways[number]
        log = gateway.log()
        self.ends[number, self.lives[number]] = time.monotonic()
        self.lives[number] += 1
        gateway.child.kill()
        gateway.child.wait()
        if any(report in log for report in harness.REPORTS):
            raise AssertionError(log[-8000:])

    def pause(self, number):
        self.down.add(number)
        self.gateways[number].signal(signal.SIGSTOP)

    def resume(self, number):
        self.gateways[number].signal(signal.SIGCONT)
        self.down.discard(number)

    def living(self):
        return [number for number in range(len(self.gateways)) if number not in self.down]

    def is_whole(self):
        return all(self.gateways[number].health() == (200, []) for number in self.living())

    def holders(self):
        """The gateway that has each device's feed, by Redis' word; all of them live."""
        numbers = [gateway.number() for gateway in self.gateways]
        held = (line.split()[:2] for line in self.redis.ask("EVAL", LEASES, "0").split("\n"))
        return {int(key.rsplit(":", 1)[1]): numbers.index(number)
                for key, number in held if number in numbers}
