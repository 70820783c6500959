#!/usr/bin/env python3
"""What the upload of a face picture costs: a form of a description and a picture of 200 KB.

Starts a sub-device stand-in (nginx) and qn-gateway, uploads on a few connections at once and prints
uploads per second, latency and the gateway's CPU time. Pictures go to the disk under TMPDIR and are
flushed there. Needs nginx; build the project first (Release).
Usage: picture_upload.py --build build/release
"""
import argparse
import os
import pathlib
import signal
import statistics
import sys
import tempfile
import threading
import time

import proxy_comparison as bench

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "e2e"))
import client  # noqa: E402

URL = "/KAVRO/Intelligent/FDLib/FaceDataRecord?format=json"


def form(size):
    picture = b"\xff\xd8\xff\xe0" + os.urandom(size - 4)
    parts = ((b"application/json", b'{"FaceInfo":{"employeeNo":"1"}}'), (b"image/jpeg", picture))
    body = b"".join(b'--bench\r\nContent-Disposition: form-data; name="part"\r\nContent-Type: '
                    + kind + b"\r\n\r\n" + content + b"\r\n" for kind, content in parts)
    return body + b"--bench--\r\n", {"Content-Type": "multipart/form-data; boundary=bench"}


def upload(port, body, headers, until, latencies):
    with client.Client(port, "admin", bench.PASSWORD) as one:
        while time.monotonic() < until:
            start = time.monotonic()
            answer = one.post(URL, body, headers=headers)
            if answer.status != 200:
                raise SystemExit(f"an upload was answered {answer}")
            latencies.append(time.monotonic() - start)


def measure(port, pid, connections, args):
    body, headers = form(args.bytes)
    latencies, before = [], bench.cpu_seconds(pid)
    until = time.monotonic() + args.seconds
    threads = [threading.Thread(target=upload, args=(port, body, headers, until, latencies))
               for _ in range(connections)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    cpu = (bench.cpu_seconds(pid) - before) / len(latencies)
    cuts = statistics.quantiles(latencies, n=100)
    print(f"{connections:>11} {len(latencies) / args.seconds:>10.0f} {cuts[49] * 1000:>10.2f} "
          f"{cuts[98] * 1000:>10.2f} {cpu * 1000:>10.3f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--bytes", type=int, default=200_000)
    parser.add_argument("--seconds", type=float, default=4)
    args = parser.parse_args()
    device_port, port = bench.free_port(), bench.free_port()
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        running = [bench.device(folder, device_port, b'{"statusCode":1}'),
                   bench.gateway(folder, args.build, port, device_port)]
        try:
            bench.wait_for(device_port)
            bench.wait_for(port)
            print("connections  uploads/s     p50 ms     p99 ms     CPU ms")
            for connections in (1, 4, 16):
                measure(port, running[1].pid, connections, args)
        finally:
            for process in running:
                process.send_signal(signal.SIGTERM)
            for process in running:
                process.wait(20)


if __name__ == "__main__":
    main()
