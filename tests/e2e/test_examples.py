"""The example clients, each against a gateway of its own; skipped where a language is missing."""
import importlib.util
import os
import pathlib
import select
import shutil
import subprocess
import unittest

import client
import harness

FOLDER = pathlib.Path(__file__).parents[2] / "examples" / "clients"
LONGEST = 120  # lines of an example


class Example:
    """What every example does with its orders; `source` is its file, `program` starts it."""

    @classmethod
    def setUpClass(cls):
        if not shutil.which(cls.program[0]):
            raise unittest.SkipTest(f"{cls.program[0]} is not installed")
        super().setUpClass()
        cls.command = [*cls.program, FOLDER / cls.source]

    def start(self, *order, user="admin", password=harness.PASSWORD, **more):
        account = {"KAVRO_URL": f"http://127.0.0.1:{self.gateway.port}", "KAVRO_USER": user,
                   "KAVRO_PASSWORD": password}
        child = subprocess.Popen([*map(str, self.command), *order], text=True, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, env={**os.environ, **account}, **more)
        self.addCleanup(child.communicate)
        self.addCleanup(child.kill)
        return child

    def run_order(self, *order, **more):
        child = self.start(*order, **more)
        out, err = child.communicate(timeout=60)
        return child.returncode, out, err

    def line(self, child):
        ready, _, _ = select.select([child.stdout], [], [], 30)
        self.assertTrue(ready, "no line within 30 s")
        return child.stdout.readline()

    def test_it_is_short(self):
        for file in FOLDER.glob(self.source):
            self.assertLessEqual(len(file.read_text().splitlines()), LONGEST, file)

    def test_reads_edits_and_searches(self):
        self.assertEqual(self.run_order("info"), (0, "IPCamera 1 SIM-C4 SIM000000001\n", ""))
        name = "Gate <north> & \"yard\""
        self.assertEqual(self.run_order("rename", "101", name), (0, "OK\n", ""))
        with client.Client(self.gateway.port, "admin", harness.PASSWORD) as one:
            channel = one.get("/KAVRO/Streaming/channels/101").xml()
        self.assertEqual(channel.findtext("channelName"), name)
        status, out, _ = self.run_order("search", "101", "2026-01-01T00:00:00Z", "2026-01-02T23:59:59Z")
        lines = out.splitlines()
        self.assertEqual((status, len(set(lines)), len(lines)), (0, 48, 48), "all pages, each once")
        self.assertRegex(lines[47], "^2026-01-02T23:00:00Z rtsp://.*/tracks/101[?]starttime=.*&endtime=")

    def test_a_fault_ends_it_with_its_reason(self):
        for order in (["info"], ["alerts", "1"]):
            for fault, reason in (({"password": "wrong"}, "401 badAuthorization"),
                                  ({"user": "lost"}, "404 ")):
                status, out, err = self.run_order(*order, **fault)
                self.assertEqual((status, out), (1, ""), err)
                self.assertIn(reason, err)
        self.devices.fault(1, kind="refuse")
        self.assertIn("502 deviceReplyUnusable", self.run_order("info")[2], "told in JSON")

    def test_alarms_go_on_after_the_gateway_was_restarted(self):
        child = self.start("alerts", "3")
        self.wait_for_feed()
        self.push(eventType="motion", eventState="active", channelName="a & <b>")
        self.assertEqual(self.line(child), "motion active a & <b>\n")
        self.push(eventType="QRCodeEvent", eventState="active", channelName="in JSON")
        self.assertEqual(self.line(child), "QRCodeEvent active in JSON\n")
        self.gateway.signal(15)
        self.assertEqual(self.gateway.wait(), 0)
        harness.wait_until(lambda: self.devices.state(1)["alertStreams"] == 0)
        self.gateway.start()
        self.wait_for_feed(seconds=40)
        self.push(eventType="motion", eventState="inactive", channelName="back")
        self.assertEqual(self.line(child), "motion inactive back\n")
        self.assertEqual(child.wait(20), 0)


class StandardPython(Example, harness.StreamTest):
    source, program = "kavro_stdlib.py", ["python3"]


@unittest.skipUnless(importlib.util.find_spec("requests"), "requests is not installed")
class Requests(Example, harness.StreamTest):
    source, program = "kavro_requests.py", ["python3"]


class Node(Example, harness.StreamTest):
    source, program = "kavro.mjs", ["node"]


class Shell(Example, harness.StreamTest):
    source, program = "kavro.sh", ["bash"]


class Go(Example, harness.StreamTest):
    source, program = "go/*.go", ["go"]
    # Where the gateway writes a line break before each further boundary.
    sections = {"kavro": {"mime_parts": True}}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        built = cls.gateway.folder / "kavro"
        subprocess.run(["go", "build", "-o", built, *FOLDER.glob(cls.source)], check=True,
                       env={**os.environ, "GOCACHE": str(cls.gateway.folder / "go")})
        cls.command = [built]
