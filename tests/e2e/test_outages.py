"""Three gateways with 200 devices and clients on each, while one part after the other fails: what
becomes of each alarm, login and operation. QN_OUTAGE_SECONDS: how long Redis is gone, not 10."""
import os
import shutil
import time
import typing
import unittest

import cluster
import engines
import harness
import ledger

DEVICES = 200
WINDOW = cluster.Cluster.LEASE + 3  # seconds until others have the feeds of a gateway that is gone
SILENCE = 2  # seconds until a gateway takes an engine that says nothing for gone


class Fault(typing.NamedTuple):
    """`begin` and `end` get the cluster and the gateway that is hit. `misses` says for how many
    seconds a client of one gateway may miss alarms of a device whose feed another has."""
    name: str
    begin: typing.Callable
    end: typing.Callable
    seconds: float
    shows: bool = False  # in /readyz
    misses: typing.Callable = lambda hit, client, holder: 0


def relay(engine, *modes):
    """One mode after the other, with a pause between two."""
    def order(all, hit):
        for number, mode in enumerate(modes):
            time.sleep(3 if number else 0)
            all.relays.set(f"{engine} {hit}", mode)
    return order


def cut(engine, mode, seconds, shows, *misses, back=("pass",)):
    return Fault(f"{engine} {mode} for a gateway", relay(engine, mode), relay(engine, *back),
                 seconds, shows, *misses)


def of_others(hit, client, holder, seconds=WINDOW):
    """A gateway that is cut off hears nothing of the others, and they nothing of it."""
    return seconds * (client != holder and hit in (client, holder))


FAULTS = (
    Fault("a gateway is killed", lambda all, hit: all.kill(hit),
          lambda all, hit: all.gateways[hit].start(), 4, False,
          lambda hit, client, holder: WINDOW * (hit == holder)),
    Fault("a gateway is stopped past its lease", lambda all, hit: all.pause(hit),
          lambda all, hit: all.resume(hit), 4, False,
          lambda hit, client, holder: 4 + WINDOW if hit == client else WINDOW * (hit == holder)),
    cut("redis", "refuse", 3, True, of_others, back=("slow", "pass")),
    cut("redis", "silent", 4, True, of_others),
    # Until the gateway knows it renews what others would take.
    cut("redis", "mute", 5, True, lambda *who: of_others(*who, SILENCE + WINDOW)),
    cut("redis", "deaf", 3, True, of_others),
    cut("postgres", "silent", 2, False),  # it is waited for longer
    Fault("PostgreSQL is killed", lambda all, hit: all.postgres.kill(),
          lambda all, hit: all.postgres.start(), 2, True),
    Fault("Redis is emptied", lambda all, hit: all.redis.ask("FLUSHALL"),
          lambda all, hit: None, 3, False, lambda hit, client, holder: WINDOW),
    Fault("Redis is killed, and comes back empty", lambda all, hit: all.redis.kill(),
          lambda all, hit: all.redis.start(), float(os.environ.get("QN_OUTAGE_SECONDS", 10)), True,
          lambda hit, client, holder: WINDOW * (client != holder)),
)


@unittest.skipUnless(shutil.which("redis-server") and engines.has_postgres(),
                     "redis-server or PostgreSQL is not installed")
class OutagesTest(unittest.TestCase):
    def suffer(self, fault, hit):
        """The fault for its time, under traffic, and until all is well again."""
        holders = self.cluster.holders()
        before = self.ledger.counts()
        self.ledger.guesses.disturbances += 1
        arrived = self.ledger.alarms.arrived()
        fault.begin(self.cluster, hit)
        self.ledger.alarms.excuse(fault.name, arrived, lambda client, device: fault.misses(
            hit, client, holders.get(device)))
        try:
            time.sleep(fault.seconds)
            if fault.shows:
                harness.wait_until(lambda: not self.cluster.is_whole(), what="the outage")
            during, paused = self.ledger.counts(), set(self.cluster.down)
        finally:
            fault.end(self.cluster, hit)
        if hit in self.cluster.down:
            self.ledger.alarms.open(hit, self.cluster.indexes)
            self.cluster.down.discard(hit)
        self.ledger.settle()
        self.ledger.guesses.disturbances += 1
        if not paused:  # clients may wait for it
            # Guesses go on by addresses, each of which may take longer than a fault.
            for count, more in zip(before[:3], during[:3]):
                self.assertLess(count, more, (before, during))

    def test_nothing_is_lost_that_need_not_be_and_nobody_is_refused(self):
        self.cluster = cluster.Cluster(DEVICES, self.addCleanup)
        self.ledger = ledger.Ledger(self.cluster)
        self.ledger.begin()
        self.ledger.settle()
        for number, fault in enumerate(FAULTS):
            with self.subTest(fault.name):
                self.suffer(fault, number % 3)
        wrong = self.ledger.close()
        self.assertFalse(wrong, "\n".join(wrong))


if __name__ == "__main__":
    unittest.main()
