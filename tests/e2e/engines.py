"""The engines that several gateways share, each a process on a free port with a folder of its own."""
import os
import pathlib
import pwd
import shutil
import socket
import subprocess
import tempfile

import harness

POSTGRES = pathlib.Path("/usr/lib/postgresql/15/bin")
HAPROXY = shutil.which("haproxy") or "/usr/sbin/haproxy"


def has_postgres():
    return (POSTGRES / "postgres").exists() and (os.getuid() != 0 or _postgres_user() is not None)


def has_haproxy():
    return pathlib.Path(HAPROXY).exists()


def _postgres_user():
    try:
        return pwd.getpwnam("postgres").pw_uid if os.getuid() == 0 else os.getuid()
    except KeyError:
        return None


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Engine:
    """Started with a command, killed, and started again on what it has kept."""

    user = None  # it runs as

    def start(self):
        self.child = subprocess.Popen(self.command, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL, user=self.user)
        harness.wait_until(self.ready, harness.START_TIME, self.command[0])

    def kill(self):
        self.child.kill()
        self.child.wait()

    def stop(self):
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)


class Redis(Engine):
    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="qn-redis-")
        self.port, = harness.free_ports(1)
        self.command = ["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", "",
                        "--appendonly", "no", "--requirepass", "geheim", "--dir", self.folder]
        self.url = f"redis://:geheim@127.0.0.1:{self.port}/1"
        self.start()

    def ready(self):
        return listens(self.port)

    def ask(self, *words):
        return subprocess.run(["redis-cli", "-p", str(self.port), "-a", "geheim", "-n", "1", *words],
                              capture_output=True, text=True, timeout=60).stdout.strip()


class Postgres(Engine):
    """Reached through a socket in its folder."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="qn-postgres-")
        self.user = _postgres_user()
        os.chown(self.folder, self.user, -1)
        self.data = f"{self.folder}/data"
        subprocess.run([POSTGRES / "initdb", "-D", self.data, "-U", "qn", "-A", "trust", "-E", "UTF8",
                        "--locale=C", "--no-sync"], check=True, capture_output=True,
                       user=self.user)
        self.command = [POSTGRES / "postgres", "-D", self.data, "-k", self.folder, "-c",
                        "listen_addresses="]
        self.url = f"postgresql:///postgres?user=qn&host={self.folder}"
        self.start()

    def ready(self):
        return self.ask("SELECT 1") == "1"

    def ask(self, sql):
        return subprocess.run(["psql", "-XtAq", self.url, "-c", sql], capture_output=True, text=True,
                              timeout=60).stdout.strip()


class Haproxy(Engine):
    """As packaging/haproxy.cfg says, but for the ports: of three gateways, and their admin ports."""

    def __init__(self, gateways, admins):
        self.folder = tempfile.mkdtemp(prefix="qn-haproxy-")
        self.port, = harness.free_ports(1)
        text = (pathlib.Path(__file__).parents[2] / "packaging" / "haproxy.cfg").read_text()
        text = text.replace("127.0.0.1:8080", f"127.0.0.1:{self.port}")
        for number, (gateway, admin) in enumerate(zip(gateways, admins), 1):
            text = text.replace(f"127.0.0.1:808{number} port 930{number}",
                                f"127.0.0.1:{gateway} port {admin}")
        pathlib.Path(self.folder, "haproxy.cfg").write_text(text)
        self.command = [HAPROXY, "-db", "-f", f"{self.folder}/haproxy.cfg"]
        self.start()

    def ready(self):
        return listens(self.port)
