#!/usr/bin/env python3
"""Loads the gateway and, beside it, nginx as a plain proxy of the same device, in turn.

Starts a sub-device stand-in (nginx answering every request with one document: device information,
or a JSON text or a picture of --reply-bytes), nginx as a proxy to it (without temporary files),
qn-gateway, and with --peers also nginx with Lua and a Go program that do the gateway's job for this
one resource (bench/peers). Loads all with qn-load (Digest login, every request its own nonce count)
and prints requests per second, latency, CPU per request and the ratio to nginx, and the gateway's
memory. Needs nginx; build the project first (Release).

proxy_comparison.py --build build/release                       a translated reply
proxy_comparison.py --path /KAVRO/Any/Thing --reply-bytes 600   one that is passed through
proxy_comparison.py --connections 1 --pinned --peers lua go     on one core, beside peers
proxy_comparison.py --connections 2000 --devices 200            many of both
proxy_comparison.py --tls                                       over TLS, and handshakes
"""
import argparse
import json
import os
import pathlib
import resource
import signal
import socket
import ssl
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PASSWORD = "bench-Password1"
LUA_MODULES = "/usr/lib/nginx/modules"
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


def nginx(folder, name, workers, server, modules=""):
    """Starts one nginx instance and returns its process."""
    conf = folder / f"{name}.conf"
    conf.write_text(f"""{modules} daemon off; worker_processes {workers}; pid {folder}/{name}.pid;
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


def upstream(device_port):
    return f"""upstream device {{ server 127.0.0.1:{device_port}; keepalive 2048;
    keepalive_requests 1000000000; }}"""


def certificate(folder, kind):
    new = {"ecdsa": ("ec", "ec_paramgen_curve:prime256v1"), "rsa": ("rsa", "rsa_keygen_bits:2048")}
    subprocess.run(["openssl", "req", "-x509", "-newkey", new[kind][0], "-pkeyopt", new[kind][1],
                    "-nodes", "-subj", "/CN=127.0.0.1", "-keyout", folder / "tls.key", "-out",
                    folder / "tls.pem"], check=True, capture_output=True)


def proxy(folder, port, device_port, workers, tls):
    secure = f"""ssl_certificate {folder}/tls.pem; ssl_certificate_key {folder}/tls.key;
    ssl_protocols TLSv1.2 TLSv1.3;""" if tls else ""
    return nginx(folder, "proxy", workers, f"""
  {upstream(device_port)}
  server {{ listen 127.0.0.1:{port} {"ssl" if tls else ""}; {secure} location / {{ proxy_pass http://device;
    proxy_max_temp_file_size 0; proxy_http_version 1.1; proxy_set_header Connection ""; }} }}""")


def lua(folder, port, device_port, workers):
    load = "".join(f"load_module {LUA_MODULES}/{name}_module.so; "
                   for name in ("ndk_http", "ngx_http_lua"))
    return nginx(folder, "lua", workers, f"""
  lua_shared_dict counts 10m;
  {upstream(device_port)}
  server {{ listen 127.0.0.1:{port}; set $bench_password "{PASSWORD}";
    location /KAVRO/ {{ content_by_lua_file {ROOT}/bench/peers/translate.lua; }}
    location /device/ {{ internal; proxy_pass http://device/; proxy_http_version 1.1;
      proxy_set_header Connection ""; proxy_set_header Authorization ""; }} }}""", load)


def go(folder, port, device_port, workers):
    subprocess.run(["go", "build", "-o", str(folder / "peer"), str(ROOT / "bench/peers/peer.go")],
                   check=True, env={**os.environ, "GOCACHE": str(folder / "go"), "GO111MODULE": "off"})
    return subprocess.Popen([str(folder / "peer"), str(port), f"http://127.0.0.1:{device_port}"],
                            env={**os.environ, "BENCH_PASSWORD": PASSWORD,
                                 "GOMAXPROCS": str(workers)})


PEERS = {"lua": lua, "go": go}


def tables(device_port, devices):
    """The gateway's users and devices: one of each, or so many, each user with a device."""
    users = [("admin", "1")] + [(f"u{n}", str(n)) for n in range(1, devices + 1) if devices > 1]
    return "".join(f"""[[users]]
name = "{name}"
password = "{PASSWORD}"
device = "{index}"
""" for name, index in users) + "".join(f"""[[devices]]
index = "{n}"
url = "http://127.0.0.1:{device_port}"
""" for n in range(1, devices + 1))


def gateway(folder, build, port, device_port, tls, devices=1):
    conf = folder / "gateway.toml"
    conf.touch(0o600)
    conf.write_text(f"""
[http]
port = {free_port() if tls else port}
connections_per_address = 8192
[https]
port = {port if tls else 0}
certificate = "{folder}/tls.pem"
key = "{folder}/tls.key"
[network]
picture_port = {free_port()}
[bus]
device_connections = 64
[storage]
data_dir = "{folder}/data"
[log]
level = "warn"
""" + tables(device_port, devices))
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


def load(name, ports, pids, connections, args, options):
    before = cpu_seconds(pids[name])
    out = subprocess.run(
        [str(args.build / "bin/qn-load"), "--port", str(ports[name]), "--path", args.path,
         "--connections", str(connections), "--seconds", str(args.seconds),
         "--password", PASSWORD, "--users", str(args.devices if args.devices > 1 else 0),
         *(["--tls"] if args.tls else []), *options],
        check=True, capture_output=True, text=True).stdout
    result = json.loads(out)
    result["cpu_s_per_10k"] = (cpu_seconds(pids[name]) - before) * 10000 / result["requests"]
    if result["failures"]:
        raise SystemExit(f"{name}: {result['failures']} answers were not 200")
    return result


def compare(ports, pids, connections, args, what, options=()):
    """Prints a table and returns the gateway's ratios to each of the others."""
    rows = {name: [] for name in pids}
    for _ in range(args.rounds):
        for name, row in rows.items():
            row.append(load(name, ports, pids, connections, args, options))
    print(f"\n{what}, {args.rounds} rounds of {args.seconds} s in turn, medians")
    print(f"{'':10}{'req/s':>10}{'p50 us':>10}{'p99 us':>10}{'CPU s/10k':>12}")
    for name, row in rows.items():
        value = {key: statistics.median(r[key] for r in row) for key in row[0]}
        print(f"{name:10}{value['rps']:>10.0f}{value['p50_us']:>10.1f}{value['p99_us']:>10.1f}"
              f"{value['cpu_s_per_10k']:>12.4f}")
    results = []
    for other in rows:
        for key, label in (("cpu_s_per_10k", "CPU per request"), ("p50_us", "p50")):
            if other == "gateway":
                continue
            ratios = [g[key] / n[key] for g, n in zip(rows["gateway"], rows[other])]
            middle = statistics.median(ratios)
            print(f"gateway / {other}, {label}: median {middle:.2f}"
                  f" (min {min(ratios):.2f}, max {max(ratios):.2f})")
            results.append({"row": f"{args.row}, {what}: {label} / {other}",
                            "ratio": middle, "low": min(ratios), "high": max(ratios),
                            "unit": "ratio"})
    return results


def check_alike(ports, names, path):
    """All that translate must answer the same."""
    sys.path.insert(0, str(ROOT / "tests/e2e"))
    import client
    bodies = {name: client.Client(ports[name], "admin", PASSWORD).get(path).body
              for name in ("gateway", *names)}
    if len(set(bodies.values())) != 1:
        raise SystemExit(f"the peers do not answer the same: {bodies}")


def idle_memory(port, pid, count, tls):
    """Resident memory for each idle keep-alive connection that has made one request."""
    before = resident_kib(pid)
    sockets = []
    for _ in range(count):
        s = socket.create_connection(("127.0.0.1", port))
        s = tls.wrap_socket(s) if tls else s
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
    parser.add_argument("--connections", type=int, nargs="+", default=(1, 64))
    parser.add_argument("--devices", type=int, default=1, help="configured, each with a user")
    parser.add_argument("--peers", nargs="*", choices=PEERS, default=())
    parser.add_argument("--pinned", action="store_true", help="everything on one core")
    parser.add_argument("--tls", action="store_true", help="nginx and the gateway; no peers")
    parser.add_argument("--certificate", choices=("ecdsa", "rsa"), default="ecdsa")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=4)
    parser.add_argument("--workers", type=int, default=2, help="of nginx and Go")
    parser.add_argument("--idle", type=int, default=1000, help="idle connections to measure")
    parser.add_argument("--row", help="what --json calls it")
    parser.add_argument("--json", type=pathlib.Path, help="file that the ratios are added to")
    args = parser.parse_args()
    args.row = args.row or ("translated GET by HTTPS" if args.tls else "translated GET")
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    trusting = ssl.create_default_context() if args.tls else None
    if trusting:
        trusting.check_hostname, trusting.verify_mode = False, ssl.CERT_NONE
    if args.pinned:
        os.sched_setaffinity(0, {0})

    ports = {name: free_port() for name in ("device", "nginx", "gateway", *args.peers)}
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        certificate(folder, args.certificate)
        stand_in = device(folder, ports["device"], reply_of(args.reply_kind, args.reply_bytes))
        running = {"nginx": proxy(folder, ports["nginx"], ports["device"], args.workers, args.tls),
                   "gateway": gateway(folder, args.build, ports["gateway"], ports["device"],
                                      args.tls, args.devices)}
        for name in args.peers:
            running[name] = PEERS[name](folder, ports[name], ports["device"], args.workers)
        try:
            for port in ports.values():
                wait_for(port)
            if args.peers:
                check_alike(ports, args.peers, args.path)
            pids = {name: process.pid for name, process in running.items()}
            print(f"gateway resident after start: {resident_kib(pids['gateway'])} KiB,"
                  f" {len(os.listdir('/proc/%d/task' % pids['gateway']))} threads")
            results = [result for connections in args.connections
                       for result in compare(ports, pids, connections, args,
                                             f"{connections} connection(s)")]
            for kind in ("full", "resumed") if args.tls else ():
                results += compare(ports, pids, 1, args, f"{kind} handshakes",
                                   ["--handshakes", kind])
            print(f"\ngateway resident after load: {resident_kib(pids['gateway'])} KiB")
            print(f"idle keep-alive connection: "
                  f"{idle_memory(ports['gateway'], pids['gateway'], args.idle, trusting):.2f} KiB resident")
            if args.json:
                before = json.loads(args.json.read_text()) if args.json.exists() else []
                args.json.write_text(json.dumps(before + results, indent=1))
        finally:
            for process in (stand_in, *running.values()):
                process.send_signal(signal.SIGTERM)
            for process in (stand_in, *running.values()):
                process.wait(20)


if __name__ == "__main__":
    main()
