"""The simulated devices by themselves: what the conversations through the gateway do not show."""
import http.client
import json
import pathlib
import subprocess
import tempfile
import time
import unittest

import client
import harness


class Device(unittest.TestCase):
    def setUp(self):
        self.devices = harness.Subdevices(1)
        self.addCleanup(self.devices.stop)
        self.device = client.Client(self.devices.port())
        self.addCleanup(self.device.close)

    def test_what_is_put_is_what_the_next_get_shows(self):
        change = {"StreamingChannel": {"id": "7", "channelName": "Yard", "Video": {
            "maxFrameRate": 600}, "Transport": {"ControlProtocolList": [
                None, {"ControlProtocol": {"streamingTransport": "HTTP"}}]}}}
        url = "/KAVRO/Streaming/channels/201"
        self.assertEqual(self.device.put(url, json.dumps(change)).status, 200)
        stream = self.device.get(url).json()["StreamingChannel"]
        self.assertEqual((stream["id"], stream["channelName"]), ("201", "Yard"))
        self.assertEqual((stream["Video"]["maxFrameRate"], stream["Video"]["videoResolutionWidth"]),
                         (600, 1920))
        self.assertEqual(stream["Transport"]["ControlProtocolList"],
                         [{"ControlProtocol": {"streamingTransport": "HTTP"}}])

    def test_every_family_has_documents_that_are_kept_when_they_are_put(self):
        for url, entry, id, change in (
                ("/System/Network/interfaces", "NetworkInterface", 1, {"mtu": 1400}),
                ("/Security/users", "User", 2, {"name": "night", "password": "Secret-77"}),
                ("/System/IO/inputs", "IOInputPort", 1, {"name": "Gate"}),
                ("/Event/triggers", "EventTrigger", 3, {"actions": ["output"]}),
                ("/Streaming/tracks", "Track", 203, {"daysKept": 7}),
                ("/System/Video/inputs/channels", "VideoInputChannel", 2, {"name": "Yard"}),
                ("/AccessControl/persons", "Person", 1, {"name": "A. N. Other"}),
                ("/Intelligent/FDLib", "FDLib", 1, {"threshold": 75.5})):
            whole, one = f"/KAVRO{url}?format=json", f"/KAVRO{url}/{id}"
            before = self.device.get(one).json()[entry]
            self.assertEqual(self.device.put(one, json.dumps({entry: change})).status, 200, url)
            listed = [row[entry] for row in next(iter(self.device.get(whole).json().values()))]
            change.pop("password", None)
            self.assertIn({**before, **change}, listed, url)
            for wrong in ({"nmae": "x"}, {next(iter(change)): {}}, 5):
                self.assertEqual(self.device.put(one, json.dumps({entry: wrong})).status, 400, wrong)
            self.assertEqual(self.device.get(f"/KAVRO{url}/99999").status, 404)
        self.assertIn(b"Gate", self.device.get("/KAVRO/System/IO").body)
        for url in ("/Smart", "/System", "/Event", "/Security", "/AccessControl", "/Intelligent"):
            self.assertEqual(self.device.get(f"/KAVRO{url}/capabilities").status, 200, url)

    def test_a_list_grows_to_its_bound_and_shrinks(self):
        url, body = "/KAVRO/Security/users", json.dumps({"User": {"name": "u"}})
        answers = [self.device.post(url, body) for _ in range(63)]
        self.assertEqual([answer.json().get("id") for answer in answers], [*range(3, 65), None])
        self.assertEqual((answers[-1].status, answers[-1].json()["subStatusCode"]), (403, "listFull"))
        self.assertEqual([self.device.request("DELETE", url + "/3").status for _ in range(2)],
                         [200, 404])

    def test_bad_requests_and_orders_are_refused(self):
        for method, url, body, status, code in (
                ("GET", "/No/such/thing", "", 404, 4), ("DELETE", "/System/deviceInfo", "", 404, 4),
                ("PUT", "/Streaming/channels/101", "<xml/>", 400, 5),
                ("PUT", "/Streaming/channels/101", '{"StreamingChannel": 1}', 400, 5),
                ("PUT", "/System/time", '{"Time": {"new": 1}}', 400, 6),
                ("PUT", "/PTZCtrl/channels/1/continuous", '{"PTZData": {"pan": 101}}', 400, 6),
                ("POST", "/ContentMgmt/search", "[" * 5000, 400, 5)):
            answer = self.device.request(method, "/KAVRO" + url, body)
            self.assertEqual((answer.status, answer.json()["statusCode"]), (status, code), url)

    def test_orders_that_are_misspelt_are_refused_as_a_whole_and_with_the_reason(self):
        for order, reason in (
                ({"fualt": {"kind": "hang"}}, "fualt"), ({"fault": {"kind": "explode"}}, "garbage"),
                ({"fault": {"kind": "hang", "cuont": 3}}, "cuont"), ({"alarm": 5}, "object"),
                ({"fault": {"kind": "hang", "delayMs": -1}}, "delayMs"), ({"unlock": "yes"}, "unlock"),
                ({"alarm": {"count": 0}}, "from 1"), ({"alarm": {"type": "moton"}}, "motion"),
                ({"fault": {"bytes": 10**9, "kind": "large"}}, "bytes"),
                ({"link": {"delayMs": "5"}}, "delayMs"), ([], "object")):
            if isinstance(order, dict):
                order["listening"] = False
            answer = self.device.post("/control", json.dumps(order))
            self.assertEqual(answer.status, 400, order)
            self.assertIn(reason, answer.json()["description"])
        self.assertTrue(self.devices.state()["listening"])
        self.assertEqual(self.device.get("/KAVRO/System/deviceInfo").status, 200)

    def command(self, *words):
        """(exit status, what a command says) to the running simulator."""
        done = subprocess.run([harness.BIN / "qn-subdevice", *words, "--port",
                               str(self.devices.port())], capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout + done.stderr

    def test_a_running_simulator_takes_commands(self):
        stream = http.client.HTTPConnection("127.0.0.1", self.devices.port(), timeout=60)
        self.addCleanup(stream.close)
        stream.request("GET", client.AlertStream.URL)
        parts = stream.getresponse()
        self.assertEqual(self.command("alarm", "IO", "--count", "2", "--alert",
                                      '{"inputIOPortID": 7}'), (0, ""))
        lines = iter(parts.readline, b"")
        alarms = [next(line for line in lines if b'"inputIOPortID"' in line) for _ in range(2)]
        self.assertEqual([alarm.count(b'"inputIOPortID":7') for alarm in alarms], [1, 1])
        self.assertEqual(self.command("fault", "reply", "--http-status", "503", "--count", "1")[0], 0)
        self.assertEqual([self.device.get("/KAVRO/System/time").status for _ in range(2)], [503, 200])
        self.assertEqual(json.loads(self.command("state")[1])["alarmsSent"], 2)
        self.assertEqual(self.command("link", "--bytes-per-second", "20000000")[0], 0)
        for words, reason in ((("fault", "hnag"), "hang"), (("alarm", "IO", "--cuont", "2"), "cuont"),
                              (("state", "--device", "2"), "no device 2")):
            status, text = self.command(*words)
            self.assertNotEqual(status, 0)
            self.assertIn(reason, text)

    def test_a_slow_link_and_a_reboot(self):
        self.devices.order(link={"bytesPerSecond": 2000, "delayMs": 300})
        began = time.monotonic()
        self.assertGreater(len(self.device.get("/KAVRO/Streaming/channels").body), 7000)
        self.assertGreater(time.monotonic() - began, 1.3, "7 kB at 2 kB/s, after 0.3 s")
        self.devices.order(link=None, reboot={"seconds": 0.2})
        with self.assertRaises(OSError):
            self.device.get("/KAVRO/System/time")

        def answers():
            try:
                with client.Client(self.devices.port()) as again:
                    return again.get("/KAVRO/System/time").status == 200
            except OSError:
                return False
        harness.wait_until(answers, 20, "the device after its reboot")


    def test_faults_hit_as_often_as_ordered(self):
        self.devices.fault(kind="reply", count=2, httpStatus=503, body="busy", url="/System/",
                           contentType="text/plain")
        self.assertEqual(self.device.get("/KAVRO/Smart/capabilities").status, 200)
        answers = [self.device.get("/KAVRO/System/deviceInfo") for _ in range(3)]
        self.assertEqual([answer.status for answer in answers], [503, 503, 200])
        self.assertEqual((answers[0].body, answers[0].type()), (b"busy", "text/plain"))


class Days(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name) / "day"

    def test_a_day_is_played_again_and_again(self):
        self.file.write_text("# a day\n\n23:00 2 alarm motion --count 3\n"
                             "00:01:30 1-2 alarm IO --count 2\n12:00 1 reboot --seconds 1\n")
        devices = harness.Subdevices(2, "--day", self.file, "--day-speed", 86400)  # in a second
        self.addCleanup(devices.stop)

        def raised():  # whole days of 2 and 5 alarms
            return [devices.state(1)["alarmsRaised"] // 2, devices.state(2)["alarmsRaised"] // 5]
        harness.wait_until(lambda: min(raised()) >= 2, 60, "the second day")

    def test_what_is_wrong_with_a_day_is_said_for_each_line(self):
        self.file.write_text("8:00 all unlock\n24:00 all unlock\n08:00 3 unlock\n08:00 all\n"
                             "08:00 all alarm moton\n08:00 2-1 unlock\n08:61 1 unlock\nx\n")
        def run():
            return subprocess.run([harness.BIN / "qn-subdevice", "--port", "0", "--day", self.file],
                                  capture_output=True, text=True, timeout=60)
        done = run()
        self.assertEqual(done.returncode, 1)
        for line in range(1, 9):
            self.assertIn(f"{self.file}:{line}: ", done.stderr)
        self.file.write_text("# nothing\n")
        self.assertIn("nothing happens", run().stderr)
