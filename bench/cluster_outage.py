"""Good clients and replays at three gateways, while Redis is killed, stays away and comes back. Run
by cluster.py.

A client that stays sends each request to its gateway and, when that has accepted it, the same bytes
again to all three at once. A client that roams sends each request to all three at once: one of them
may accept it. When none does, its nonce must be stale and a login with the next one must do: that is
no refusal, since nobody is asked for a password.
"""
import collections
import multiprocessing
import socket
import time

import client
import harness
import members

URL = "/KAVRO/System/deviceInfo"
PROCESSES, CLIENTS = 2, 12  # half of the clients roam
BEFORE, AWAY, AFTER = 5, 60, 10
PATIENCE = 20  # seconds for an answer


class Line:
    """A connection to one gateway."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.reader = self.socket.makefile("rb")

    def send(self, authorization):
        self.socket.sendall((f"GET {URL} HTTP/1.1\r\nHost: h\r\n" + (
            f"Authorization: {authorization}\r\n" if authorization else "") + "\r\n").encode())

    def answer(self):
        """The status, and the challenge when there is one."""
        status = int(self.reader.readline().split()[1])
        length, challenge = 0, None
        while (line := self.reader.readline().strip()):
            name, _, value = line.decode().partition(": ")
            if name.lower() == "content-length":
                length = int(value)
            elif name.lower() == "www-authenticate":
                challenge = client.parse_challenge(value)
        self.reader.read(length)
        return status, challenge

    def ask(self, authorization):
        self.send(authorization)
        return self.answer()


class Customer:
    """A client with a line to each gateway, and a login."""

    def __init__(self, ports, home, roams):
        self.lines = [Line(port) for port in ports]
        self.home, self.roams = self.lines[home], roams
        self.login = client.Client(ports[home], "admin", harness.PASSWORD)
        self.found = collections.Counter()
        self.home.send(None)
        self.take(self.home.answer()[1])

    def take(self, challenge):
        self.login.challenge, self.login.uses = challenge, 0

    def turn(self):
        answers = self.request()
        accepted = sum(status == 200 for status, _ in answers)
        self.found["requests"] += 1
        self.found["accepted twice"] += max(accepted - 1, 0)
        if accepted:
            return
        self.found["logged in again"] += 1
        stale = [challenge for status, challenge in answers
                 if status == 401 and challenge and challenge.get("stale", "").lower() == "true"]
        self.found["refused"] += len(stale) < len(answers)
        if stale:
            self.take(stale[0] if self.roams else stale[-1])
            # The nonce is of the first line's gateway, or of home: asked there it must do.
            line = self.lines[0] if self.roams else self.home
            status, challenge = line.ask(self.login.authorization("GET", URL))
            self.found["refused"] += status != 200
            if status != 200 and challenge:
                self.take(challenge)

    def request(self):
        """The answers to one authorization: of all, or of home, and then replays to all."""
        authorization = self.login.authorization("GET", URL)
        if self.roams:
            return self.everywhere(authorization)
        answer = self.home.ask(authorization)
        if answer[0] == 200:
            self.found["replays"] += len(self.lines)
            self.found["replays accepted"] += sum(
                status == 200 for status, _ in self.everywhere(authorization))
        return [answer]

    def everywhere(self, authorization):
        for line in self.lines:
            line.send(authorization)
        return [line.answer() for line in self.lines]


def customers(ports, end, results):
    """A process: its clients take turns until `end`; sends what they found."""
    everybody = [Customer(ports, n % len(ports), n % 2 == 1) for n in range(CLIENTS)]
    found = collections.Counter()
    try:
        while time.monotonic() < end:
            for each in everybody:
                each.turn()
    except (OSError, ValueError, IndexError, AssertionError) as error:
        found[f"broken: {error!r}"] += 1
    for each in everybody:
        found += each.found
    results.send(found)


def run(running, args):
    away = args.seconds or AWAY
    redis = running.redis()
    devices = running.subdevices(1)
    tables = [{"index": "1", "url": devices.urls[0]}]
    gateways = [running.member(tables, members.users_of([]), redis) for _ in range(3)]
    members.await_engines(*gateways)
    begin = time.monotonic()
    pipes = []
    for _ in range(PROCESSES):
        ours, theirs = multiprocessing.Pipe()
        running.process(multiprocessing.Process(target=customers, args=(
            [one.port for one in gateways], begin + BEFORE + away + AFTER, theirs)))
        pipes.append(ours)
    sleep_until(begin + BEFORE)
    redis.kill()
    killed = time.monotonic()
    sleep_until(begin + BEFORE + away)
    redis.start()
    print(f"Redis was away for {time.monotonic() - killed:.1f} s", flush=True)
    found = collections.Counter()
    for pipe in pipes:
        if not pipe.poll(away + AFTER + 3 * PATIENCE):
            raise SystemExit("the clients did not end")
        found.update(pipe.recv())
    members.await_engines(*gateways)
    print(", ".join(f"{name}: {count}" for name, count in sorted(found.items())))
    if any(name.startswith("broken") for name in found) or not found["replays"]:
        raise SystemExit("the clients could not go on")
    taken = sum(members.metrics(one)["qn_cluster_nonces_taken_total"] for one in gateways)
    print(f"nonces taken over: {taken:.0f}")
    title = f"{away} s without Redis"
    return [members.row(f"{title}: {what}", [found[name]], "faults") for what, name in (
        ("good clients refused", "refused"), ("replays accepted", "replays accepted"),
        ("counts accepted twice", "accepted twice"))]


def sleep_until(end):
    time.sleep(max(0, end - time.monotonic()))
