"""1,000 kill -9 of gateways that hold leases and have failures and nonces in Redis: what is left
there. Run by cluster.py.

One gateway lives on, one for each thread is started and killed over and over: it takes the lease of
a device that nobody has, whose alarms the lasting one reads, reads those of the device that the
thread's former gateway had, takes a nonce from the lasting one and gives it one, and counts a failed
login. Every key must expire by itself; how soon is printed, by kind.
"""
import collections
import socket
import threading
import time

import client
import harness
import members

KILLS, THREADS, DEVICES = 1000, 4, 400
PATIENCE = 30  # seconds for each step of a life
KINDS = ("feed", "number", "alarms", "failures", "nonce")
KEYS = """local found = {}
for _, key in ipairs(redis.call('KEYS', 'qn:1:*')) do
  found[#found + 1] = key found[#found + 1] = redis.call('PTTL', key) end
return found"""


class Server:
    """Asks Redis on one connection."""

    def __init__(self, redis):
        self.socket = socket.create_connection(("127.0.0.1", redis.port), PATIENCE)
        self.reader = self.socket.makefile("rb")
        self.ask("AUTH", "geheim")
        self.ask("SELECT", "1")

    def ask(self, *words):
        self.socket.sendall(b"*%d\r\n" % len(words) + b"".join(
            b"$%d\r\n%s\r\n" % (len(word), word) for word in map(str.encode, words)))
        return self.answer()

    def answer(self):
        line = self.reader.readline()[:-2]
        kind, rest = line[:1], line[1:]
        if kind == b"-":
            raise SystemExit(f"Redis: {rest.decode()}")
        if kind == b"*":
            return [self.answer() for _ in range(int(rest))]
        if kind == b"$":
            return None if rest == b"-1" else self.reader.read(int(rest) + 2)[:-2].decode()
        return int(rest) if kind == b":" else rest.decode()


class Lives(threading.Thread):
    """Gateways one after the other."""

    def __init__(self, number, gateway, lasting, redis, devices, kills):
        super().__init__(daemon=True)
        self.number, self.gateway, self.lasting = number, gateway, lasting
        self.server, self.devices, self.kills = Server(redis), devices, kills
        self.fault, self.done = None, 0

    def run(self):
        try:
            for life in range(self.kills):
                if life > 0:
                    self.gateway.start()
                self.live(life)
                self.done += 1
        except (AssertionError, OSError, ValueError) as error:
            self.fault = error

    def device(self, life):
        """Each thread has devices of its own, and takes turns."""
        share = DEVICES // THREADS
        return 1 + self.number * share + life % share

    def live(self, life):
        port, own, former = self.gateway.port, self.device(life), self.device(life - 1)
        members.await_engines(self.gateway)
        streams = [client.AlertStream(port, f"u{n}", harness.PASSWORD) for n in (own, former)]
        address = f"127.{1 + self.number}.{life // 250}.{1 + life % 250}"
        with client.Client(port, "admin", "wrong", address) as guesser:
            guesser.get("/KAVRO/Security/userCheck")
        self.roam(port, self.lasting.port)
        self.roam(self.lasting.port, port)
        harness.wait_until(lambda: self.server.ask("EXISTS", f"qn:1:feed:{own}"), PATIENCE, "a lease")
        streams.append(client.AlertStream(self.lasting.port, f"u{own}", harness.PASSWORD))
        harness.wait_until(lambda: self.travels(own), PATIENCE, "an alarm in Redis")
        self.gateway.kill()
        for stream in streams:
            stream.close()

    def travels(self, number):
        self.devices.order(number, alarm={"count": 1, "alert": {"channelName": "x"}})
        return self.server.ask("EXISTS", f"qn:1:alarms:{number}")

    def roam(self, here, there):
        """A client takes its nonce to another gateway."""
        with client.Client(here, "admin", harness.PASSWORD) as first, \
                client.Client(there, "admin", harness.PASSWORD) as second:
            first.get("/KAVRO/Security/userCheck")
            second.challenge, second.uses = first.challenge, first.uses
            second.get("/KAVRO/Security/userCheck")


def keys_of(server):
    """How many there are of each kind, the longest expiry in seconds, and those without one."""
    found, forever = collections.defaultdict(list), []
    words = server.ask("EVAL", KEYS, "0")
    for key, left in zip(words[::2], words[1::2]):
        found[key.split(":")[2]].append(left / 1000)
        if left < 0 and left != -2:
            forever.append(key)
    return found, forever


def run(running, args):
    kills = args.rounds or KILLS
    redis = running.redis()
    devices = running.subdevices(DEVICES)
    numbers = range(1, DEVICES + 1)
    tables = [{"index": str(n), "url": devices.urls[n - 1]} for n in numbers]
    users = members.users_of(numbers)
    limits = {"lock": {"max_attempts": 5}}
    lasting = running.member(tables, users, redis, sections=limits)
    threads = []
    for number in range(THREADS):
        gateway = members.Member(tables, users, redis, sections=limits)
        running.stack.callback(gateway.discard)
        threads.append(Lives(number, gateway, lasting, redis, devices, -(-kills // THREADS)))
    begin = time.monotonic()
    for thread in threads:
        thread.start()
    server, seen, forever = Server(redis), collections.Counter(), set()
    while any(thread.is_alive() for thread in threads):
        found, without = keys_of(server)
        forever.update(without)
        seen.update({kind: len(ends) for kind, ends in found.items()})
        time.sleep(0.5)
    for thread in threads:
        if thread.fault:
            raise SystemExit(f"after {thread.done} kills: {thread.fault!r}")
    done = sum(thread.done for thread in threads)
    print(f"{done} kills in {time.monotonic() - begin:.0f} s; seen by kind meanwhile: {dict(seen)}")
    if missing := [kind for kind in KINDS if not seen[kind]]:
        raise SystemExit(f"nothing of {', '.join(missing)} was there to be left")
    lasting.stop()
    found, without = keys_of(server)
    forever.update(without)
    for kind, ends in sorted(found.items()):
        print(f"left: {len(ends)} {kind}, the last one for {max(ends):.0f} s")
    print("without expiry: " + (", ".join(sorted(forever)) or "none"))
    rows = [members.row(f"{done} kills: keys without expiry", [len(forever)], "faults")]
    left = wait_for_end(server, found, args.seconds or 0)
    if left is not None:
        rows.append(members.row(f"{done} kills: keys left when all have expired", [left], "faults"))
    return rows


def wait_for_end(server, found, patience):
    """How many keys are left after the longest expiry; nothing when that is too long to wait."""
    longest = max((max(ends) for ends in found.values()), default=0)
    if longest > patience:
        return None
    time.sleep(longest + 1)
    return len(server.ask("KEYS", "*"))
