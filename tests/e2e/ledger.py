"""What clients and devices do on several gateways while parts of these fail, and the ledger of each
alarm, login and operation: what came of it, and what must not be. For tests and measurements of a
Cluster."""
import collections
import http.client
import itertools
import random
import re
import selectors
import socket
import threading
import time

import client
import harness

INFO = "/KAVRO/System/deviceInfo"
TIME = "/KAVRO/System/time?format=json&marker="
TROUBLE = (OSError, http.client.HTTPException)
KILLED_ROWS = 3  # seconds; what a gateway answers just before it is killed may be in no file yet
NUMBER = re.compile(rb"<channelName>(\d+)<")


class Traffic(threading.Thread):
    """Takes steps until it ends, as one client; `wrong` says what must not be."""

    def __init__(self, cluster):
        super().__init__(daemon=True)
        self.cluster = cluster
        self.wrong = []
        self.visits = Visits(cluster, self.wrong)
        self.count = 0  # of what it is for
        self.over = threading.Event()

    def run(self):
        try:
            while not self.over.is_set():
                self.step()
        except Exception as error:  # it would find nothing any more
            self.wrong.append(f"{type(self).__name__} ended: {error!r}")
            raise

    def end(self):
        self.over.set()
        self.join(60)
        if self.is_alive():
            self.wrong.append(f"{type(self).__name__} hangs")
        for one in self.visits.clients.values():
            one.close()


class Stream:
    """A client's alert stream: the numbers of the alarms that came."""

    def __init__(self, gateway, device, life, login):
        """`login`: a client with a challenge of this gateway."""
        self.gateway, self.device, self.life = gateway, device, life
        self.numbers, self.rest = [], b""
        login.user = f"user{device}"
        head = (f"GET {client.AlertStream.URL} HTTP/1.1\r\nHost: gateway\r\nAuthorization: "
                f"{login.authorization('GET', client.AlertStream.URL)}\r\n\r\n")
        self.connection = socket.create_connection(login.connection.sock.getpeername(), 20)
        self.connection.sendall(head.encode())
        status = self.connection.recv(12)
        if status != b"HTTP/1.1 200":
            raise AssertionError(f"no stream: {status!r}")

    def read(self):
        """False when it has ended."""
        try:
            data = self.connection.recv(65536)
        except ConnectionError:
            data = b""
        self.rest += data
        end = 0
        for alarm in NUMBER.finditer(self.rest):
            self.numbers.append(int(alarm[1]))
            end = alarm.end()
        self.rest = self.rest[end:]
        return bool(data)


class Alarms(Traffic):
    """Each device's alarms in turn, numbered, so many a second, and for each device a stream on
    each gateway. A number that is missing between others of a stream was lost; `excuses` say at
    which gateway and of which device that may be, and when the alarm was sent."""

    def __init__(self, cluster, rate):
        super().__init__(cluster)
        self.pause = 1 / rate
        self.sent = {index: {} for index in cluster.indexes}  # when, by number
        self.excuses = []
        self.streams = []
        self.selector = selectors.DefaultSelector()
        self.control = http.client.HTTPConnection("127.0.0.1", cluster.devices.port(1))
        self.due = time.monotonic()

    def step(self):
        for index in self.cluster.indexes:
            if self.over.is_set():
                return
            self.raise_alarm(index)
            self.due = max(self.due + self.pause, time.monotonic() - 1)
            self.read(self.due)

    def raise_alarm(self, index):
        self.count += 1
        number, began = self.count, time.monotonic()
        self.control.request("POST", f"/control?device={index}", '{"alarm": {"count": 1, "alert": '
                             f'{{"channelName": "{number}"}}}}}}')
        answer = self.control.getresponse()
        if answer.status != 200 or not answer.read():
            raise AssertionError(f"the device refused an alarm: {answer.status}")
        self.sent[index][number] = (began, time.monotonic())

    def read(self, until):
        while True:
            for key, _ in self.selector.select(max(0, until - time.monotonic())):
                self.take(key.data)
            if time.monotonic() >= until:
                return

    def take(self, stream):
        if stream.read():
            return
        self.selector.unregister(stream.connection)
        stream.connection.close()
        if stream.life == self.cluster.lives[stream.gateway]:
            self.wrong.append(f"a stream of gateway {stream.gateway} ended")

    def open(self, gateway, indexes):
        """Streams there; by the test's thread."""
        with client.Client(self.cluster.gateways[gateway].port, "", harness.PASSWORD) as login:
            login.challenge = client.parse_challenge(
                login.once("GET", INFO).headers["WWW-Authenticate"])
            for index in indexes:
                stream = Stream(gateway, index, self.cluster.lives[gateway], login)
                self.streams.append(stream)
                self.selector.register(stream.connection, selectors.EVENT_READ, stream)

    def arrived(self):
        """The newest number on each stream; what is sent already and not there is on its way."""
        return {stream: stream.numbers[-1] if stream.numbers else 0 for stream in list(self.streams)}

    def excuse(self, fault, arrived, may_miss):
        """Of a fault that begins now, and what had arrived before it; for how many seconds `may_miss` says
        of a gateway and a device."""
        self.excuses.append((fault, time.monotonic(), arrived, may_miss))

    def wait_for_all(self):
        """What was sent last has come to all streams of living gateways."""
        newest = {index: max(sent, default=0) for index, sent in self.sent.items()}

        def came():
            if not self.is_alive():
                self.read(time.monotonic() + 0.02)
            return all(stream.numbers and stream.numbers[-1] >= newest[stream.device]
                       for stream in self.streams
                       if stream.life == self.cluster.lives[stream.gateway])
        harness.wait_until(came, 60, "alarms on all streams")

    def is_excused(self, stream, number):
        began = self.sent[stream.device][number][0]
        return any(number > arrived.get(stream, 0) and began <= since + seconds
                   for _, since, arrived, may_miss in self.excuses
                   if (seconds := may_miss(stream.gateway, stream.device)))

    def when(self, index, number):
        began = self.sent[index][number][0]
        faults = sorted((since - began, fault) for fault, since, *_ in self.excuses)
        past, to_come = [each for each in faults if each[0] <= 0], [each for each in faults if each[0] > 0]
        return f"{number}, " + ", ".join(
            f"{abs(time):.2f} s {'after' if time <= 0 else 'before'} {fault}"
            for time, fault in past[-1:] + to_come[:1])

    def close(self):
        """When nothing is sent any more."""
        self.wait_for_all()
        self.control.close()
        for stream in self.streams:
            stream.connection.close()
            numbers, sent = stream.numbers, self.sent[stream.device]
            what = f"gateway {stream.gateway}, device {stream.device}: "
            late = [pair for pair in itertools.pairwise(numbers) if pair[0] >= pair[1]]
            if late:
                late = [(earlier, self.when(stream.device, later)) for earlier, later in late]
                self.wrong.append(f"{what}twice, or out of order: {late}")
            elif numbers:
                due = {number for number in sent if numbers[0] < number < numbers[-1]}
                lost = [self.when(stream.device, number) for number in sorted(due - set(numbers))
                        if not self.is_excused(stream, number)]
                self.wrong += [f"{what}lost: {lost}"] * bool(lost)


class Visitor(client.Client):
    """Remembers what it has sent as its login."""

    def authorization(self, method, url):
        self.sent = super().authorization(method, url)
        return self.sent


class Visits:
    """A client with one connection to each gateway and one login for all of them."""

    def __init__(self, cluster, wrong):
        self.cluster, self.wrong = cluster, wrong
        self.clients = {}  # by gateway and life
        self.challenge, self.uses = None, 0

    def at(self, gateway):
        key = gateway, self.cluster.lives[gateway]
        if key not in self.clients:
            port = self.cluster.gateways[gateway].port
            self.clients[key] = Visitor(port, "admin", harness.PASSWORD)
        return self.clients[key]

    def visit(self, gateway, method="GET", url=INFO, body=None):
        """Its login when it was served, "" when its nonce was renewed, None without an answer."""
        one, life = self.at(gateway), self.cluster.lives[gateway]
        one.challenge, one.uses = self.challenge, self.uses
        try:
            answer = one.once(method, url, body)
        except TROUBLE as error:
            if life == self.cluster.lives[gateway] and gateway not in self.cluster.down:
                self.wrong.append(f"gateway {gateway} did not answer: {error!r}")
            return None
        finally:
            self.uses = one.uses
        if answer.status == 200:
            return one.sent
        challenge = client.parse_challenge(answer.headers.get("WWW-Authenticate", ""))
        if answer.status != 401 or (self.challenge and challenge["stale"].upper() != "TRUE"):
            self.wrong.append(f"a good client was refused by gateway {gateway}: {answer}")
        self.challenge, self.uses = challenge, 0
        return ""


class Logins(Traffic):
    """Good clients that go from gateway to gateway; every third request is an operation."""

    def __init__(self, cluster, number):
        super().__init__(cluster)
        self.markers = (f"{number}-{i}" for i in itertools.count())
        self.accepted = collections.deque(maxlen=200)  # for replays
        self.operations = {}  # by marker: the gateway and its life, and when it was answered

    def step(self):
        gateway = random.choice(self.cluster.living())
        self.count += 1
        marker = next(self.markers) if self.count % 3 == 0 else None
        request = (("PUT", TIME + marker, b'{"Time": {"timeMode": "NTP"}}') if marker
                   else ("GET", INFO))
        life = self.cluster.lives[gateway]
        # A nonce may be stale elsewhere, never where it was just made.
        login = self.visits.visit(gateway, *request)
        if login == "":
            login = self.visits.visit(gateway, *request)
        if login:
            self.accepted.append((request, login))
        elif login == "" and life == self.cluster.lives[gateway]:
            self.wrong.append(f"gateway {gateway} knows its own nonce not")
        if marker:
            self.operations[marker] = (gateway, life, time.monotonic() if login else None)
        self.over.wait(0.02)


def at_once(clients, request, logins):
    """The answers of all, None where there was none."""
    def attempt(one, act):
        try:
            return act()
        except TROUBLE:
            one.close()
            return None

    for one, login in zip(clients, logins):
        headers = {"Authorization": login} if login else {}
        attempt(one, lambda: one.connection.request(*request, headers=headers))
    return [attempt(one, lambda: answer_of(one.connection.getresponse())) for one in clients]


def answer_of(response):
    return client.Answer(response.status, response.headers, response.read())


class Replays(Traffic):
    """Logins that were accepted, again on all gateways; and new ones, on all at once."""

    def __init__(self, cluster, logins):
        super().__init__(cluster)
        self.logins = logins

    def step(self):
        asked = [self.visits.at(gateway) for gateway in self.cluster.living()]
        accepted = list(random.choice(self.logins).accepted)
        if accepted and random.random() < 0.8:
            (request, login), most = random.choice(accepted), 0
        else:
            request, most, maker = ("GET", INFO), 1, random.choice(asked)
            answer, = at_once([maker], request, [None])
            if not answer:
                return
            maker.challenge = client.parse_challenge(answer.headers["WWW-Authenticate"])
            maker.uses = 0
            login = maker.authorization(*request)
        answers = at_once(asked, request, [login] * len(asked))
        served = sum(answer is not None and answer.status == 200 for answer in answers)
        self.count += sum(answer is not None for answer in answers)
        if served > most:
            self.wrong.append(f"{served} gateways accepted a login that {most} may: {login}")
        self.over.wait(0.02)


class Guesses(Traffic):
    """Wrong passwords from one address after the other, on all gateways at once, until each has
    locked it. A further guess follows when all gateways have heard of those before, for which a
    nonce goes round them: what they are told comes in its order."""

    ROUNDS = 20

    def __init__(self, cluster):
        super().__init__(cluster)
        self.disturbances = 0  # odd while one is under way
        self.locked = []

    def step(self):
        before = self.disturbances
        address = f"127.{10 + self.count // 60}.1.{self.count % 60 + 1}"  # of a /24 256 have room
        guessers = {number: client.Client(gateway.port, "admin", "wrong", address)
                    for number, gateway in enumerate(self.cluster.gateways)}
        unlocked, heard = 0, True
        for _ in range(self.ROUNDS):
            answers = self.guess([guessers[number] for number in self.cluster.living()])
            if self.over.is_set() or all(each and b"unlockTime" in each.body for each in answers):
                break
            unlocked += sum(each is not None and b"unlockTime" not in each.body
                            for each in answers)
            heard = self.go_round() and heard
        else:
            self.wrong.append(f"{address} was not locked")
        for guesser in guessers.values():
            guesser.close()
        calm = heard and before == self.disturbances and before % 2 == 0
        # A guess that locks says so. By itself each gateway allows so many, also after a start.
        most = self.cluster.LIMIT - 1 + 2 if calm else 4 * (self.cluster.LIMIT - 1)
        if unlocked > most:
            self.wrong.append(f"{address}: {unlocked} guesses that locked nothing, {most} may")
        self.count += 1
        if not self.over.is_set():
            self.locked.append(address)
        self.over.wait(0.3)

    def guess(self, guessers):
        challenges = at_once(guessers, ("GET", INFO), [None] * len(guessers))
        able = [(one, answer) for one, answer in zip(guessers, challenges) if answer]
        for one, answer in able:
            one.challenge = client.parse_challenge(answer.headers["WWW-Authenticate"])
        answers = at_once([one for one, _ in able], ("GET", INFO),
                          [one.authorization("GET", INFO) for one, _ in able])
        self.wrong += ["a wrong password was accepted" for each in answers
                       if each and each.status == 200]
        return answers + [None] * (len(guessers) - len(able))

    def go_round(self):
        living = self.cluster.living()
        for _ in range(10):
            if all(self.visits.visit(gateway) for gateway in living + living[:2]):
                return True
        return False

    def are_locked(self, gateway):
        """All of them there, as somebody with the right password finds out."""
        def is_locked(address):
            with client.Client(self.cluster.gateways[gateway].port, "admin", harness.PASSWORD,
                               address) as right:
                return b"unlockTime" in right.get(INFO).body
        return all(map(is_locked, self.locked))


class Ledger:
    """All of it on a whole cluster."""

    ROWS = ("SELECT substring(operation from 'marker=(.*)'), count(*) FROM operation_log "
            "WHERE operation LIKE 'PUT %marker=%' GROUP BY 1")

    def __init__(self, cluster, alarms=100, clients=3):
        """So many alarms a second, and good clients."""
        self.cluster = cluster
        self.alarms = Alarms(cluster, alarms)
        self.logins = [Logins(cluster, number) for number in range(clients)]
        self.replays = Replays(cluster, self.logins)
        self.guesses = Guesses(cluster)
        self.traffic = [self.alarms, *self.logins, self.replays, self.guesses]

    def begin(self):
        """With a third of the feeds at each gateway."""
        for turn in range(3):
            for gateway in range(3):
                self.alarms.open(gateway, [index for index in self.cluster.indexes
                                           if (index + turn) % 3 == gateway])
            harness.wait_until(lambda: len(self.cluster.holders()) == len(self.cluster.indexes),
                               60, "feeds")
        for each in self.traffic:
            each.start()

    def settle(self):
        """Until all engines can be used everywhere and alarms flow everywhere."""
        harness.wait_until(self.cluster.is_whole, what="a whole cluster")
        self.alarms.wait_for_all()

    def counts(self):
        """So far: accepted alarms, requests, replays, guesses."""
        return [self.alarms.count, sum(each.count for each in self.logins), self.replays.count,
                self.guesses.count]

    def close(self):
        """Ends all; what must not be."""
        for each in self.traffic[1:] + self.traffic[:1]:
            each.end()
        self.alarms.close()
        for gateway in range(3):
            harness.wait_until(lambda: self.guesses.are_locked(gateway), 60, "all locks")
        return [wrong for each in self.traffic for wrong in each.wrong] + self.wrong_rows()

    def wrong_rows(self):
        operations = collections.ChainMap(*(each.operations for each in self.logins))
        due = {marker for marker, (gateway, life, answered) in operations.items() if answered and
               answered + KILLED_ROWS < self.cluster.ends.get((gateway, life), answered + 3600)}
        rows = {}

        def all_there():
            found = self.cluster.postgres.ask(self.ROWS).split("\n")
            rows.update(line.split("|") for line in found)
            return due <= set(rows)
        try:
            harness.wait_until(all_there, 60, "rows")
        except AssertionError:
            return [f"rows that are missing: {sorted(due - set(rows))}"]
        return [f"row {marker}: {count} times" for marker, count in rows.items() if count != "1"]
