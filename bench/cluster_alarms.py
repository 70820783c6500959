"""Alarms of devices that one gateway holds, to clients of it and of another. Run by cluster.py.

The holder's clients show what the machine and the way without Redis take; both are read by the same
process in the same run.
"""
import multiprocessing
import select
import socket
import time

import alert_streams
import client
import harness
import members

RATE = 2000    # a second, of all devices together
DEVICES = 100
GROUPS = ("holder", "other")


def reader(streams, results):
    """A process: reads (group, socket) pairs; when asked it sends what came of each group since:
    latencies in ms, how many came twice, and how many behind a later one of their device."""
    poll = select.epoll()
    state = {}  # by socket: its group, itself, bytes that are left, all stamps, the newest
    for group, one in streams:
        one.setblocking(False)
        poll.register(one, select.EPOLLIN)
        state[one.fileno()] = [group, one, b"", set(), 0]
    latencies = {group: [] for group in GROUPS}
    twice, late = dict.fromkeys(GROUPS, 0), dict.fromkeys(GROUPS, 0)
    results.send("ready")
    while True:
        for number, _ in poll.poll(0.1):
            group, one, rest, seen, newest = state[number]
            data = rest + one.recv(1 << 18)
            now, last = time.monotonic_ns(), 0
            for found in alert_streams.STAMP.finditer(data):
                stamp, last = int(found[1]), found.end()
                twice[group] += stamp in seen
                late[group] += stamp < newest
                seen.add(stamp)
                newest = max(newest, stamp)
                latencies[group].append((now - stamp) / 1e6)
            state[number][2:] = data[max(last, len(data) - 40):], seen, newest
        if results.poll():
            results.recv()
            results.send({group: (sorted(latencies[group]), twice[group], late[group])
                          for group in GROUPS})
            latencies = {group: [] for group in GROUPS}
            twice, late = dict.fromkeys(GROUPS, 0), dict.fromkeys(GROUPS, 0)


def percentile(ordered, part):
    return ordered[int((len(ordered) - 1) * part)] if ordered else float("nan")


def open_streams(gateways, numbers):
    """The first gateway's first, so that it holds all feeds."""
    return [(group, alert_streams.open_stream(gateway.port, f"u{n}", harness.PASSWORD, client))
            for group, gateway in zip(GROUPS, gateways) for n in numbers]


def run(running, args):
    redis = running.redis()
    listener = socket.create_server(("127.0.0.1", 0), backlog=4096)
    ours, theirs = multiprocessing.Pipe()
    running.process(multiprocessing.Process(target=alert_streams.devices, args=(listener, theirs)))
    numbers = range(1, args.devices + 1)
    port = listener.getsockname()[1]
    tables = [{"index": str(n), "url": f"http://127.0.0.1:{port}"} for n in numbers]
    gateways = [running.member(tables, members.users_of(numbers), redis) for _ in GROUPS]
    members.await_engines(*gateways)
    streams = open_streams(gateways, numbers)
    harness.wait_until(lambda: ours.send((0, 0)) or ours.recv() == len(numbers), 30, "the feeds")
    heard, reads = multiprocessing.Pipe()
    running.process(multiprocessing.Process(target=reader, args=(streams, reads)))
    heard.recv()
    measure(ours, heard, 2)  # until everybody reads
    commands = redis_commands(redis)
    cpus = [alert_streams.cpu_seconds(one.child.pid) for one in (*gateways, redis)]
    rounds = [measure(ours, heard, args.seconds or 6) for _ in range(args.rounds or 5)]
    used = [alert_streams.cpu_seconds(one.child.pid) - before
            for one, before in zip((*gateways, redis), cpus)]
    alarms = sum(sent for sent, _ in rounds)
    print("CPU us for each alarm: holder %.1f, other %.1f, Redis %.1f; commands of Redis %.2f" % (
        *(1e6 * each / alarms for each in used), (redis_commands(redis) - commands) / alarms))
    return report(rounds)


def redis_commands(redis):
    found = [line for line in redis.ask("INFO", "stats").splitlines()
             if line.startswith("total_commands_processed:")]
    return int(found[0].partition(":")[2])


def measure(source, heard, seconds):
    source.send((RATE, seconds))
    sent = source.recv()
    time.sleep(1)  # for what is on its way
    heard.send("?")
    return sent, heard.recv()


def report(rounds):
    rows = []
    for group, name in zip(GROUPS, ("on the holder", "across gateways")):
        for sent, found in rounds:
            latencies, twice, late = found[group]
            print(f"{name:16}: {len(latencies)} of {sent}, twice {twice}, out of order {late}; "
                  + ", ".join(f"p{part * 100:g} {percentile(latencies, part):.2f} ms"
                              for part in (.5, .9, .99, 1)))
        for part in (.5, .9, .99):
            values = [percentile(found[group][0], part) for _, found in rounds]
            rows.append(members.row(f"alarm {name}, 2,000/s: p{part * 100:g}", values, "ms"))
    wrong = sum(sent - len(found["other"][0]) + 2 * found["other"][1] for sent, found in rounds)
    rows.append(members.row("alarms across gateways, 2,000/s: lost or twice", [wrong], "faults"))
    return rows
