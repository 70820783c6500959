"""The translated GET at a gateway by itself and at one with the cluster's keys. Run by cluster.py."""
import argparse
import os
import statistics

import harness
import members
import proxy_comparison

CONNECTIONS = 64
RATE = 10_000  # a second, about half of what fills one core: beyond, p99 is that of a queue
GROUPS = 5  # of rounds; what they say differs by what the machine did meanwhile
VALUES = (("p50_us", "p50"), ("p99_us", "p99"), ("cpu_s_per_10k", "CPU per request"))


def stand_in(running):
    """A device that answers everything; its table entry."""
    port, = harness.free_ports(1)
    folder = running.folder()
    process = proxy_comparison.device(folder, port, proxy_comparison.reply_of("json", 0))
    running.child(process)
    proxy_comparison.wait_for(port)
    return {"index": "1", "url": f"http://127.0.0.1:{port}"}


def load(gateway, args, *options):
    """One round: the answers' times, and the gateway's CPU."""
    return proxy_comparison.load("gateway", {"gateway": gateway.port},
                                 {"gateway": gateway.child.pid}, CONNECTIONS, args, options)


def load_arguments(args, seconds, path="/KAVRO/System/deviceInfo"):
    return argparse.Namespace(build=args.build, path=path, seconds=seconds, devices=1, tls=False)


def in_turn(gateways, rounds, measure):
    """The rounds of each; who is first changes."""
    found = {name: [] for name in gateways}
    for turn in range(rounds):
        for name in list(gateways)[::1 if turn % 2 else -1]:
            found[name].append(measure(gateways[name]))
    return found


def pin(process, core):
    """All of its threads: a gateway shares its core with nothing that is measured."""
    for task in os.listdir(f"/proc/{process}/task"):
        os.sched_setaffinity(int(task), {core})


def ratios(found, title):
    """Rows of the first one's values by the second one's: of the middles of groups of rounds, each of
    which has rounds from all of the time."""
    (first, rounds), (second, others) = found.items()
    rows = []
    for key, label in VALUES:
        def middles(of):
            return [statistics.median(each[key] for each in of[group::GROUPS])
                    for group in range(min(GROUPS, len(of)))]
        pair = middles(rounds), middles(others)
        print(f"{label}: {first} {statistics.median(pair[0]):.4g}, "
              f"{second} {statistics.median(pair[1]):.4g}")
        rows.append(members.row(f"{title}: {label} / {second}",
                                [a / b for a, b in zip(*pair)], "ratio"))
    return rows


def run(running, args):
    rest, own = min(os.sched_getaffinity(0)), max(os.sched_getaffinity(0))
    os.sched_setaffinity(0, {rest})  # what is started from here on: device, engines, clients
    device = stand_in(running)
    user = {"name": "admin", "password": proxy_comparison.PASSWORD, "device": "1"}
    gateways = {
        "in a cluster": running.member([device], [user], running.redis(), running.postgres()),
        "by itself": running.member([device], [user])}
    members.await_engines(gateways["in a cluster"])
    for gateway in gateways.values():
        pin(gateway.child.pid, own)
    arguments = load_arguments(args, args.seconds or 1)

    def measure(gateway):
        return load(gateway, arguments, "--rate", str(RATE))
    in_turn(gateways, 1, measure)  # warm
    found = in_turn(gateways, args.rounds or 50, measure)
    return ratios(found, f"translated GET in a cluster, {RATE:,}/s")
