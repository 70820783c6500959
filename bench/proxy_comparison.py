#!/usr/bin/env python3
"""Loads the gateway and, beside it, nginx as a plain proxy of the same device, in turn.

Starts a sub-device stand-in (nginx answering every request with one document: device information,
or a JSON text or a picture of --reply-bytes), nginx as a proxy to it (without temporary files) and
qn-gateway, loads both with qn-load (Digest login, every request its own nonce count) and prints
requests per second, latency, CPU per request and their ratio, and the gateway's memory. Needs
nginx; build the project first (Release).

proxy_comparison.py --build build/release                       a translated reply
proxy_comparison.py --path /KAVRO/Any/Thing --reply-bytes 600   one that is passed through
"""
import argparse
import json
import os
import pathlib
import signal
import socket
import statistics
import subprocess
import tempfile
import time

PASSWORD = "bench-Password1"
DEVICE_INFO = {
    "DeviceInfo": {
        "deviceName": "Entrance north", "deviceID": "8f4c2f60-1b7e-4a53-9d8e-0c5a7be1d2f3",
        "deviceDescription": "IPCamera", "deviceLocation": "building 4, gate 2",
        "systemContact": "operations", "model": "VT-RQ4830",
        "serialNumber": "VTRQ483020240117CCWR000012345", "macAddress": "00:11:22:33:44:55",
        "firmwareVersion": "V5.7.12", "firmwareReleasedDate": "build 240117",
        "encoderVersion": "V7.3", "encoderReleasedDate": "build 231205", "bootVersion": "V1.3.4",
        "bootReleasedDate": "100316", "hardwareVersion": "0x0", "deviceType": "IPCamera",
        "telecontrolID": 88, "supportBeep": True, "supportVideoLoss": False}}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(port):
    for _ in range(200):
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except OSError:
            time.sleep(0.05)
    raise SystemExit(f"nothing listens on port {port}")


def nginx(folder, name, workers, server):
    """Starts one nginx instance and returns its process."""
    conf = folder / f"{name}.conf"
    conf.write_text(f"""daemon off; worker_processes {workers}; pid {folder}/{name}.pid;
error_log {folder}/{name}.log error; worker_rlimit_nofile 20000;
events {{ worker_connections 8192; }}
http {{ access_log off; keepalive_requests 1000000000; keepalive_timeout 600s;
  client_body_temp_path {folder}/{name}-body; proxy_temp_path {folder}/{name}-proxy;
  fastcgi_temp_path {folder}/{name}-f; uwsgi_temp_path {folder}/{name}-u;
  scgi_temp_path {folder}/{name}-s;
  {server} }}
""")
    return subprocess.Popen(["nginx", "-p", str(folder), "-c", str(conf)],
                            stderr=subprocess.DEVNULL)


def reply_of(kind, size):
    """About `size` bytes (none: the device information) of JSON, or of a picture."""
    if not size:
        return json.dumps(DEVICE_INFO).encode()
    if kind == "picture":
        return b"\xff\xd8\xff\xe0\x00\x10JFIF\x00" + os.urandom(size - 11)
    entry = {"employeeNo": "00001234", "name": "A visitor", "time": "2026-01-31T23:59:59+01:00",
             "cardReaderNo": 1, "doorNo": 2, "minor": 75, "currentVerifyMode": "cardOrFace"}
    count = max(1, size // (len(json.dumps(entry)) + 2))
    return json.dumps({"AcsEvent": {"numOfMatches": count, "InfoList": [entry] * count}}).encode()


def device(folder, port, reply):
    (folder / "reply").write_bytes(reply)
    folder.chmod(0o755)  # nginx drops root's rights
    return nginx(folder, "device", 1, f"""sendfile on; tcp_nopush on; open_file_cache max=1;
  server {{ listen 127.0.0.1:{port}; default_type application/json; root {folder};
  location / {{ error_page 405 =200 /reply; rewrite ^ /reply break; }} }}""")


def proxy(folder, port, device_port, workers):
    return nginx(folder, "proxy", workers, f"""
  upstream device {{ server 127.0.0.1:{device_port}; keepalive 64; keepalive_requests 1000000000; }}
  server {{ listen 127.0.0.1:{port}; location / {{ proxy_pass http://device;
    proxy_max_temp_file_size 0; proxy_http_version 1.1; proxy_set_header Connection ""; }} }}""")


def gateway(folder, build, port, device_port):
    conf = folder / "gateway.toml"
    conf.write_text(f"""
[http]
port = {port}
[network]
picture_port = {free_port()}
[bus]
device_connections = 64
[storage]
data_dir = "{folder}/data"
[log]
level = "warn"
[[users]]
name = "admin"
password = "{PASSWORD}"
device = "1"
[[devices]]
index = "1"
url = "http://127.0.0.1:{device_port}"
""")
    return subprocess.Popen([str(build / "bin/qn-gateway"), "--config", str(conf)])


def processes(pid):
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return [pid] + [p for child in children for p in processes(int(child))]


def cpu_seconds(pid):
    ticks = 0
    for process in processes(pid):
        fields = pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()
        ticks += int(fields[11]) + int(fields[12])
    return ticks / os.sysconf("SC_CLK_TCK")


def resident_kib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS"):
            return int(line.split()[1])
    return 0


def load(port, connections, args, pid):
    before = cpu_seconds(pid)
    out = subprocess.run(
        [str(args.build / "bin/qn-load"), "--port", str(port), "--path", args.path,
         "--connections", str(connections), "--seconds", str(args.seconds),
         "--password", PASSWORD],
        check=True, capture_output=True, text=True).stdout
    result = json.loads(out)
    result["cpu_s_per_10k"] = (cpu_seconds(pid) - before) * 10000 / result["requests"]
    if result["failures"]:
        raise SystemExit(f"{result['failures']} answers were not 200")
    return result


def compare(ports, pids, connections, args):
    rows = {"nginx": [], "gateway": []}
    for _ in range(args.rounds):
        for name, row in rows.items():
            row.append(load(ports[name], connections, args, pids[name]))
    print(f"\n{connections} connection(s), {args.rounds} rounds of {args.seconds} s in turn, medians")
    print(f"{'':10}{'req/s':>10}{'p50 us':>10}{'p99 us':>10}{'CPU s/10k':>12}")
    for name, row in rows.items():
        value = {key: statistics.median(r[key] for r in row) for key in row[0]}
        print(f"{name:10}{value['rps']:>10.0f}{value['p50_us']:>10.1f}{value['p99_us']:>10.1f}"
              f"{value['cpu_s_per_10k']:>12.4f}")
    for key, label in (("cpu_s_per_10k", "CPU per request"), ("p50_us", "p50")):
        ratios = [g[key] / n[key] for g, n in zip(rows["gateway"], rows["nginx"])]
        print(f"gateway / nginx, {label}: median {statistics.median(ratios):.2f}"
              f" (min {min(ratios):.2f}, max {max(ratios):.2f})")


def idle_memory(port, pid, count):
    """Resident memory for each idle keep-alive connection that has made one request."""
    before = resident_kib(pid)
    sockets = []
    for _ in range(count):
        s = socket.create_connection(("127.0.0.1", port))
        s.sendall(b"GET /KAVRO/System/deviceInfo HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
        s.recv(65536)
        sockets.append(s)
    time.sleep(1)
    growth = resident_kib(pid) - before
    for s in sockets:
        s.close()
    return growth / count


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--path", default="/KAVRO/System/deviceInfo")
    parser.add_argument("--reply-bytes", type=int, default=0, help="0: device information")
    parser.add_argument("--reply-kind", choices=("json", "picture"), default="json")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=4)
    parser.add_argument("--workers", type=int, default=2, help="nginx worker processes")
    parser.add_argument("--idle", type=int, default=1000, help="idle connections to measure")
    args = parser.parse_args()

    ports = {name: free_port() for name in ("device", "nginx", "gateway")}
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        running = [device(folder, ports["device"],
                          reply_of(args.reply_kind, args.reply_bytes)),
                   proxy(folder, ports["nginx"], ports["device"], args.workers),
                   gateway(folder, args.build, ports["gateway"], ports["device"])]
        try:
            for port in ports.values():
                wait_for(port)
            pids = {"nginx": running[1].pid, "gateway": running[2].pid}
            print(f"gateway resident after start: {resident_kib(pids['gateway'])} KiB")
            for connections in (1, 64):
                compare(ports, pids, connections, args)
            print(f"\ngateway resident after load: {resident_kib(pids['gateway'])} KiB")
            print(f"idle keep-alive connection: "
                  f"{idle_memory(ports['gateway'], pids['gateway'], args.idle):.2f} KiB resident")
        finally:
            for process in running:
                process.send_signal(signal.SIGTERM)
            for process in running:
                process.wait(20)


if __name__ == "__main__":
    main()
