"""The translated GET at a gateway by itself and at one with the cluster's keys. Run by cluster.py."""
import argparse
import statistics

import harness
import members
import proxy_comparison

CONNECTIONS = 64
RATE = 20_000  # a second, about a third of what fills two cores: beyond, p99 is that of a queue
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


def ratios(found, title):
    """Rows of the first one's values by the second one's."""
    (first, rounds), (second, others) = found.items()
    rows = []
    for key, label in VALUES:
        middles = [statistics.median(each[key] for each in found[name]) for name in (first, second)]
        print(f"{label}: {first} {middles[0]:.4g}, {second} {middles[1]:.4g}")
        rows.append(members.row(f"{title}: {label} / {second}",
                                [a[key] / b[key] for a, b in zip(rounds, others)], "ratio"))
    return rows


def run(running, args):
    device = stand_in(running)
    user = {"name": "admin", "password": proxy_comparison.PASSWORD, "device": "1"}
    gateways = {
        "in a cluster": running.member([device], [user], running.redis(), running.postgres()),
        "by itself": running.member([device], [user])}
    members.await_engines(gateways["in a cluster"])
    arguments = load_arguments(args, args.seconds or 2)
    def measure(gateway):
        return load(gateway, arguments, "--rate", str(RATE))
    in_turn(gateways, 1, measure)  # warm
    found = in_turn(gateways, args.rounds or 12, measure)
    return ratios(found, f"translated GET in a cluster, {RATE:,}/s")
