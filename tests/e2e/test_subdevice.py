"""The simulated devices by themselves: what the conversations through the gateway do not show."""
import json
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
        for order in ({"fault": {"kind": "explode"}}, {"fault": {"delayMs": -1}}, {"alarm": 5},
                      {"alarm": {"count": 0}}, {"fault": {"bytes": 10**9, "kind": "large"}}):
            self.assertEqual(self.device.post("/control", json.dumps(order)).status, 400, order)

    def test_faults_hit_as_often_as_ordered(self):
        self.devices.fault(kind="reply", count=2, httpStatus=503, body="busy", url="/System/",
                           contentType="text/plain")
        self.assertEqual(self.device.get("/KAVRO/Smart/capabilities").status, 200)
        answers = [self.device.get("/KAVRO/System/deviceInfo") for _ in range(3)]
        self.assertEqual([answer.status for answer in answers], [503, 503, 200])
        self.assertEqual((answers[0].body, answers[0].type()), (b"busy", "text/plain"))
