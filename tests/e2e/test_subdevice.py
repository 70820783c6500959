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
