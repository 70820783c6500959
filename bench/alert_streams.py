#!/usr/bin/env python3
"""Alarms from simulated devices through the gateway to its alert streams, and the same bytes at the
same rate through mosquitto, for scale.

Scenes: one device with many alarms a second into two streams; many devices with one alarm a second
and two streams each; and "heartbeats", 9,800 silent streams, of which is told how evenly their
heartbeats come. Prints what was delivered, CPU of the server for each part and stream,
latency from the device's write to the client's read, and memory for each open stream. Build the
project first (Release). Usage: alert_streams.py --build build/release
"""
import argparse
import itertools
import json
import multiprocessing
import os
import pathlib
import re
import resource
import select
import socket
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

URL = "/KAVRO/Event/notification/alertStream"
STREAMS = 2
SETTLE = 2  # seconds for what is under way
HEARTBEATS_BEGIN = 7  # seconds in which every silent stream gets one
HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
ALARM = {"EventNotificationAlert": {
    "ipAddress": "192.0.2.9", "macAddress": "00:11:22:33:44:55", "channelID": "1",
    "dateTime": "2026-01-01T08:00:00+08:00", "activePostCount": 1, "eventType": "linedetection",
    "eventState": "active", "eventDescription": "linedetection alarm", "channelName": "@@@@",
    "deviceID": "8f4c2f60-1b7e-4a53-9d8e-0c5a7be1d2f3",
    "DetectionRegionList": [{"DetectionRegionEntry": {
        "regionID": "1", "sensitivityLevel": 50, "detectionTarget": "human",
        "RegionCoordinatesList": [{"RegionCoordinates": {"positionX": x, "positionY": y}}
                                  for x, y in ((0, 0), (1000, 0), (1000, 1000), (0, 1000))],
        "TargetRect": {"X": 0.1, "Y": 0.2, "width": 0.3, "height": 0.4}}}]}}
STAMP = re.compile(rb"t=(\d+);")


def alarm_bytes():
    """The alarm with its time of sending; always of one length."""
    return ALARM_TEXT.replace(b"@@@@", b"t=%020d;" % time.monotonic_ns())


ALARM_TEXT = json.dumps(ALARM, separators=(",", ":")).encode()


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory_kib(pid):
    return int(re.search(r"RssAnon:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


def pace(rate, seconds, send):
    """Calls send(i) `rate` times a second, as evenly as sleeping allows."""
    begin, sent = time.monotonic(), 0
    while sent < rate * seconds:
        due = min(int((time.monotonic() - begin) * rate) + 1, rate * seconds)
        for _ in range(sent, due):
            send(sent)
            sent += 1
        time.sleep(max(0, begin + sent / rate - time.monotonic()))
    return sent


def devices(listener, orders):
    """A process: every device of the gateway behind one port, each known by its devIndex."""
    streams = {}
    poll = select.epoll()
    poll.register(listener, select.EPOLLIN)
    fresh = {}
    while True:
        for number, _ in poll.poll(0.05):
            if number == listener.fileno():
                one, _ = listener.accept()
                fresh[one.fileno()] = one
                poll.register(one, select.EPOLLIN)
            elif number in fresh:
                one = fresh.pop(number)
                poll.unregister(one)
                index = re.search(rb"devIndex=(\d+)", one.recv(8192))
                one.sendall(HEAD)
                streams[int(index[1])] = one
        if not orders.poll():
            continue
        rate, seconds = orders.recv()
        if rate == 0:
            orders.send(len(streams))
            continue
        targets = [streams[index] for index in sorted(streams)]

        def send(i):
            body = alarm_bytes()
            targets[i % len(targets)].sendall(
                b"--b\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n%s\r\n"
                % (len(body), body))

        orders.send(pace(rate, seconds, send))


def readers(connections, results, seconds):
    """A process: reads every stream; sends how many alarms came, and their latencies."""
    poll = select.epoll()
    by_number = {one.fileno(): one for one in connections}
    for one in connections:
        one.setblocking(False)
        poll.register(one, select.EPOLLIN)
    rest = dict.fromkeys(by_number, b"")
    latencies = []
    results.send("ready")
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for number, _ in poll.poll(0.1):
            data = rest[number] + by_number[number].recv(1 << 18)
            now, last = time.monotonic_ns(), 0
            for found in STAMP.finditer(data):
                latencies.append(now - int(found[1]))
                last = found.end()
            rest[number] = data[max(last, len(data) - 40):]
    latencies.sort()
    results.send((len(latencies), [latencies[int(len(latencies) * q)] / 1e6 for q in (.5, .99)]
                  if latencies else [0, 0]))


def rows_of(scene, used_us, p50, p99, memory):
    """The gateway's results, for plot.py."""
    values = [("CPU of a part and stream", used_us, "us")]
    if scene != "alarm storm":
        values += [("alarm to client, p50", p50, "ms"), ("alarm to client, p99", p99, "ms"),
                   ("memory of a stream", memory, "KiB")]
    return [{"row": f"{scene}: {what}", "ratio": value, "low": value, "high": value, "unit": unit}
            for what, value, unit in values]


def measure(name, pid, connections, count, source, rate, seconds, memory):
    """Runs one load and prints a line; returns CPU, latencies and memory. `source` is the pipe that
    orders the alarms."""
    ours, theirs = multiprocessing.Pipe()
    process = multiprocessing.Process(target=readers,
                                      args=(connections, theirs, seconds + SETTLE))
    process.start()
    ours.recv()
    before = cpu_seconds(pid)
    source.send((rate, seconds))
    sent = source.recv()
    received, (p50, p99) = ours.recv()
    used = cpu_seconds(pid) - before
    process.join()
    expected = sent * STREAMS
    print(f"{name:10} {count:5} device(s) {rate:6}/s: sent {sent}, delivered {received} of "
          f"{expected} ({100 * received / expected:.2f} %), "
          f"CPU {used / max(received, 1) * 1e6:.2f} us a part and stream, latency p50 {p50:.2f} ms "
          f"p99 {p99:.2f} ms, memory {memory / (count * STREAMS):.2f} KiB a stream", flush=True)
    return used / max(received, 1) * 1e6, p50, p99, memory / (count * STREAMS)


def heartbeats(connections, results, seconds):
    """A process: reads silent streams; sends how far apart, in seconds, their heartbeats came, once
    all of them have begun (what came while the streams were opened lies in the sockets)."""
    poll = select.epoll()
    by_number = {one.fileno(): one for one in connections}
    for one in connections:
        one.setblocking(False)
        poll.register(one, select.EPOLLIN)
    last, gaps = {}, []
    begin = time.monotonic() + HEARTBEATS_BEGIN
    while time.monotonic() < begin + seconds:
        for number, _ in poll.poll(0.1):
            count = by_number[number].recv(1 << 16).count(b"--boundary")
            now = time.monotonic()
            if now < begin:
                continue
            if count and number in last:
                gaps.append(now - last[number])
            if count:
                last[number] = now
    results.send(gaps)


def measure_heartbeats(connections, seconds):
    ours, theirs = multiprocessing.Pipe()
    process = multiprocessing.Process(target=heartbeats, args=(connections, theirs, seconds))
    process.start()
    gaps = ours.recv()
    process.join()
    # The gateway looks once a second who has been silent for five: both five and six are right.
    periods = {period: len(list(of)) for period, of in itertools.groupby(sorted(map(round, gaps)))}
    off = sorted(abs(gap - round(gap)) * 1000 for gap in gaps)
    p50, p99 = off[len(off) // 2], off[len(off) * 99 // 100]
    print(f"{len(connections)} streams, heartbeats after so many seconds: {periods}, off by "
          f"p50 {p50:.1f} ms, p99 {p99:.1f} ms, most {off[-1]:.1f} ms", flush=True)
    return [{"row": f"{len(connections)} streams: heartbeats off by, p99", "ratio": p99,
             "low": p50, "high": off[-1], "unit": "ms"}]


def start(target, *arguments):
    ours, theirs = multiprocessing.Pipe()
    process = multiprocessing.Process(target=target, args=(*arguments, theirs), daemon=True)
    process.start()
    return process, ours


def silent_devices():
    """How many devices of two streams each the heartbeats take: 4,900, or as many as the limit of
    descriptors allows. The gateway keeps some for its own files and for each device (a feed, a
    request), and an eighth of the rest for those whom it turns away."""
    limit, _ = resource.getrlimit(resource.RLIMIT_NOFILE)
    fit = next(n for n in range(4900, 0, -1)
               if STREAMS * n <= (limit - min(64 + 2 * n, limit // 2)) * 7 // 8)
    if fit < 4900:
        print(f"{STREAMS * fit} streams instead of 9800: with {limit} descriptors (ulimit -n) the "
              "gateway takes no more connections; 24576 are enough")
    return fit


def gateway_scene(harness, client, count, rate, seconds):
    listener = socket.create_server(("127.0.0.1", 0), backlog=4096)
    process, source = start(devices, listener)
    port = listener.getsockname()[1]
    numbers = range(1, count + 1)
    gateway = harness.Gateway(
        [{"index": str(n), "url": f"http://127.0.0.1:{port}"} for n in numbers],
        [harness.user("admin", "1")] + [harness.user(f"u{n}", str(n)) for n in numbers],
        {"http": {"connections": 16384, "connections_per_address": 16384},
         "bus": {"device_connections": 1}, "log": {"level": "error"}})
    try:
        before = memory_kib(gateway.child.pid)
        connections = [open_stream(gateway.port, f"u{n}", harness.PASSWORD, client)
                       for n in numbers for _ in range(STREAMS)]
        harness.wait_until(lambda: source.send((0, 0)) or source.recv() == count, 30)
        time.sleep(1)
        memory = memory_kib(gateway.child.pid) - before
        if rate == 0:
            return measure_heartbeats(connections, seconds)
        return measure("gateway", gateway.child.pid, connections, count, source, rate, seconds,
                       memory)
    finally:
        process.terminate()
        gateway.stop()


def open_stream(port, user, password, client):
    with client.Client(port, user, password) as login:
        login.challenge = client.parse_challenge(login.once("GET", URL).headers["WWW-Authenticate"])
        authorization = login.authorization("GET", URL)
    one = socket.create_connection(("127.0.0.1", port))
    one.sendall(f"GET {URL} HTTP/1.1\r\nHost: h\r\nAuthorization: {authorization}\r\n\r\n".encode())
    answer = one.recv(4096)
    if not answer.startswith(b"HTTP/1.1 200"):
        raise SystemExit(f"no stream: {answer!r}")
    return one


def mqtt_packet(kind, body):
    length, rest = b"", len(body)
    while True:
        length += bytes([rest % 128 | (128 if rest > 127 else 0)])
        rest //= 128
        if rest == 0:
            return bytes([kind]) + length + body


def mqtt_text(text):
    return len(text).to_bytes(2, "big") + text


def mqtt_connect(port, name):
    one = socket.create_connection(("127.0.0.1", port))
    one.sendall(mqtt_packet(0x10, mqtt_text(b"MQTT") + b"\x04\x02\x00\x00" + mqtt_text(name)))
    if one.recv(4)[3:] != b"\x00":
        raise SystemExit("mosquitto refused a client")
    return one


def mqtt_subscribe(port, name, topic):
    one = mqtt_connect(port, name)
    one.sendall(mqtt_packet(0x82, b"\x00\x01" + mqtt_text(topic) + b"\x00"))
    one.recv(5)
    return one


def mqtt_publisher(port, count, orders):
    publishers = [mqtt_connect(port, b"p%d" % n) for n in range(count)]
    while True:
        rate, seconds = orders.recv()
        orders.send(pace(rate, seconds, lambda i: publishers[i % count].sendall(
            mqtt_packet(0x30, mqtt_text(b"d%d" % (i % count)) + alarm_bytes()))))


def mosquitto_scene(harness, count, rate, seconds):
    port = harness.free_ports(1)[0]
    with tempfile.NamedTemporaryFile("w", suffix=".conf") as conf:
        conf.write(f"listener {port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n"
                   "max_queued_messages 0\n")
        conf.flush()
        broker = subprocess.Popen(["mosquitto", "-c", conf.name], stderr=subprocess.DEVNULL)
        try:
            harness.wait_until(lambda: not socket.socket().connect_ex(("127.0.0.1", port)), 10)
            before = memory_kib(broker.pid)
            connections = [mqtt_subscribe(port, b"s%d.%d" % (n, s), b"d%d" % n)
                           for n in range(count) for s in range(STREAMS)]
            process, source = start(mqtt_publisher, port, count)
            time.sleep(1)
            memory = memory_kib(broker.pid) - before
            measure("mosquitto", broker.pid, connections, count, source, rate, seconds, memory)
            process.terminate()
        finally:
            broker.terminate()
            broker.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--json", type=pathlib.Path, help="file that the results are added to")
    parser.add_argument("--scene", choices=("storm", "many", "both", "heartbeats"),
                        default="both")
    arguments = parser.parse_args()
    os.environ["QN_BIN_DIR"] = str(pathlib.Path(arguments.build) / "bin")
    import client
    import harness
    harness.allow_many_descriptors()
    print(f"alarms of {len(alarm_bytes())} bytes, load average {os.getloadavg()[0]:.1f}")
    results = []
    if arguments.scene == "heartbeats":
        results = gateway_scene(harness, client, silent_devices(), 0, max(arguments.seconds, 60))
    for scene, title, count, rate in (("storm", "alarm storm", 1, 10000),
                                      ("many", "1000 devices", 1000, 1000)):
        if arguments.scene in (scene, "both"):
            measured = gateway_scene(harness, client, count, rate, arguments.seconds)
            results += rows_of(title, *measured)
            mosquitto_scene(harness, count, rate, arguments.seconds)
    if arguments.json:
        before = json.loads(arguments.json.read_text()) if arguments.json.exists() else []
        arguments.json.write_text(json.dumps(before + results, indent=1))


if __name__ == "__main__":
    main()
