"""A conversation of a real gateway with a device is recorded, and played to another gateway."""
import json
import pathlib
import subprocess
import tempfile
import unittest

import client
import harness

LOGIN = ("camera-login", "Device-Secret-9")
REQUESTS = (("GET", "/KAVRO/System/deviceInfo", ""), ("GET", "/KAVRO/Streaming/channels/101", ""),
            ("GET", "/KAVRO/System/Network/interfaces?format=json", ""),
            ("GET", "/KAVRO/Security/users?format=json", ""),
            ("PUT", "/KAVRO/Security/users/2?format=json",
             json.dumps({"User": {"name": "night-guard", "password": "Guard-Secret-1"}})),
            ("GET", "/KAVRO/Security/users?format=json", ""),
            ("PUT", "/KAVRO/System/time?format=json", '{"Time": {"nonsense": 1}}'),
            ("GET", "/KAVRO/Nothing/here?format=json", ""))
SECRETS = (*LOGIN, "SIM000000001", "02:00:00:00:00:01", "192.0.2.10", "192.0.2.1", "night-guard",
           "Guard-Secret-1", "5a1d0000-0000-4000-8000-000000000001")


class Recorder(harness.Process):
    def __init__(self, url, file):
        super().__init__(harness.BIN / "qn-subdevice", "--port", "0", "--record", url, "--to", file,
                         stdout=subprocess.PIPE)
        self.url = self.child.stdout.readline().split()[1]

    def stop(self):
        super().stop()
        self.child.stdout.close()


class Recording(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name) / "conversation"

    def answers(self, url, requests, **login):
        """What a gateway before that device answers, and an alarm, which comes by itself."""
        gateway = harness.Gateway([{"index": "1", "url": url, **login}], [harness.user("admin", "1")])
        try:
            with client.Client(gateway.port, "admin", harness.PASSWORD) as one:
                answers = [one.request(*request) for request in requests]
            stream = client.AlertStream(gateway.port, "admin", harness.PASSWORD)
            alarm = stream.alarm()
            stream.close()
            return [(answer.status, answer.body.decode()) for answer in answers], alarm
        finally:
            gateway.stop()

    def test_what_was_recorded_is_answered_again_without_secrets(self):
        device = harness.Subdevices(1, "--username", LOGIN[0], "--password", LOGIN[1])
        self.addCleanup(device.stop)
        device.order(alarm={"type": "IO", "count": 1000, "perSecond": 10})
        recorder = Recorder(device.urls[0], self.file)
        try:
            recorded, alarm = self.answers(recorder.url, REQUESTS, username=LOGIN[0],
                                           password=LOGIN[1])
        finally:
            recorder.stop()
        self.assertEqual([status for status, _ in recorded], [200] * 6 + [400, 403])
        self.assertGreater(device.state()["logins"], 0)
        self.assertEqual(self.file.stat().st_mode & 0o777, 0o600)
        text = self.file.read_text()
        for secret in SECRETS:
            self.assertTrue(any(secret in body for _, body in recorded) or secret in LOGIN
                            or secret in REQUESTS[4][2] or secret == SECRETS[3], secret)
            self.assertNotIn(secret, text)
        self.assertNotIn("nonce", text)

        player = harness.Subdevices(1, "--replay", self.file)
        self.addCleanup(player.stop)
        played, played_alarm = self.answers(player.urls[0], REQUESTS)
        self.assertEqual(played_alarm[0], alarm[0])
        for (status, body), (other_status, other), request in zip(recorded, played, REQUESTS):
            self.assertEqual(status, other_status, request)
            if not any(secret in body for secret in (*SECRETS, '"admin"', '"guest"')):
                self.assertEqual(body, other, request)
        self.assertIn("XXX00000", played[0][1])
        self.assertNotEqual(played[3], played[5], "in turn")

    def test_what_a_device_does_wrong_is_played_too(self):
        device = harness.Subdevices(1)
        self.addCleanup(device.stop)
        recorder = Recorder(device.urls[0], self.file)
        with client.Client(int(recorder.url.rsplit(":", 1)[1])) as one:
            for fault in ({"kind": "reply", "httpStatus": 503, "body": "{\r\n\"busy\": 1}\n"},
                          {"kind": "large", "bytes": 70000}, {"kind": "cut"}):
                device.fault(**fault)
                try:
                    one.get("/KAVRO/System/time")
                except OSError:
                    pass
        recorder.stop()
        player = harness.Subdevices(1, "--replay", self.file)
        self.addCleanup(player.stop)
        with client.Client(player.port()) as one:
            busy = one.get("/KAVRO/System/time")
            self.assertEqual((busy.status, busy.body), (503, b"{\r\n\"busy\": 1}\n"))
            self.assertEqual(len(one.get("/KAVRO/System/time").body), 70000)
            with self.assertRaises(OSError):
                one.get("/KAVRO/System/time")

    def test_bad_files_and_urls_are_refused(self):
        self.file.write_text("# qn-subdevice conversation 1\n> GET\n")
        for options, reason in ((("--replay", self.file), f"{self.file}:2: "),
                                (("--record", "https://x", "--to", self.file), "http://HOST"),
                                (("--record", "http://127.0.0.1:1"), "--to"),
                                (("--record", "http://127.0.0.1:1", "--to", "/no/such/folder"),
                                 "No such file")):
            done = subprocess.run([harness.BIN / "qn-subdevice", "--port", "0", *options],
                                  capture_output=True, text=True, timeout=60)
            self.assertNotEqual(done.returncode, 0)
            self.assertIn(reason, done.stderr + done.stdout)
