"""The simulated devices by themselves: what the conversations through the gateway do not show."""
import json
import socket
import struct
import unittest
import zlib

import client
import harness


class DeviceTest(unittest.TestCase):
    device_options = ()

    @classmethod
    def setUpClass(cls):
        cls.devices = harness.Subdevices(2, *cls.device_options)
        cls.addClassCleanup(cls.devices.stop)

    def setUp(self):
        self.device = self.client()

    def client(self, **more):
        one = client.Client(self.devices.port(), **more)
        self.addCleanup(one.close)
        return one

    def order(self, **orders):
        self.devices.order(1, **orders)


class Documents(DeviceTest):
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

    def test_bad_requests_get_a_status_document(self):
        cases = (("GET", "/No/such/thing", "", 404, 4),
                 ("GET", "/Streaming/channels/99999999999", "", 404, 4),
                 ("DELETE", "/System/deviceInfo", "", 404, 4),
                 ("PUT", "/Streaming/channels/101", "<xml/>", 400, 5),
                 ("PUT", "/Streaming/channels/101", '{"StreamingChannel": 1}', 400, 5),
                 ("PUT", "/Streaming/channels/101",
                  '{"StreamingChannel": {"Video": {"maxFrameRate": 0}}}', 400, 6),
                 ("PUT", "/System/time", '{"Time": {"new": 1}}', 400, 6),
                 ("PUT", "/PTZCtrl/channels/1/continuous", '{"PTZData": {"pan": 101}}', 400, 6),
                 ("POST", "/ContentMgmt/search", "[" * 5000, 400, 5))
        for method, url, body, status, code in cases:
            answer = self.device.request(method, "/KAVRO" + url, body)
            self.assertEqual((answer.status, answer.json()["statusCode"]), (status, code), url)

    def test_a_search_finds_what_overlaps_and_pages(self):
        span = {"startTime": "2026-01-01T05:30:00Z", "endTime": "2026-01-01T08:10:00Z"}
        starts = []
        for position, state in ((0, "more"), (2, "complete")):
            page = self.device.post("/KAVRO/ContentMgmt/search", json.dumps({
                "CMSearchDescription": {
                    "searchID": "s", "trackIDList": [{"trackID": 202}], "maxResults": 2,
                    "timeSpanList": [{"timeSpan": span}], "searchResultPostion": position}}))
            found = page.json()["CMSearchResult"]
            self.assertEqual((found["searchID"], found["responseStatusStrg"]), ("s", state))
            starts += [match["searchMatchItem"]["timeSpan"]["startTime"][11:13]
                       for match in found["matchList"]]
        self.assertEqual(starts, ["05", "06", "07", "08"])

    def test_the_snapshot_is_a_picture(self):
        answer = self.device.get("/KAVRO/Streaming/channels/101/picture")
        self.assertEqual(answer.type(), "image/png")
        at = answer.body.index(b"IDAT")
        size, = struct.unpack(">I", answer.body[at - 4:at])
        data, checksum = answer.body[at:at + 4 + size], answer.body[at + 4 + size:at + 8 + size]
        self.assertEqual(zlib.crc32(data), struct.unpack(">I", checksum)[0])
        self.assertEqual(len(zlib.decompress(data[4:])), 48 * 65)


class Control(DeviceTest):
    def test_faults_hit_as_often_as_ordered(self):
        self.order(fault={"kind": "reply", "count": 2, "httpStatus": 503, "body": "busy",
                          "url": "/System/", "contentType": "text/plain"})
        self.assertEqual(self.device.get("/KAVRO/Smart/capabilities").status, 200)
        answers = [self.device.get("/KAVRO/System/deviceInfo") for _ in range(3)]
        self.assertEqual([answer.status for answer in answers], [503, 503, 200])
        self.assertEqual((answers[0].body, answers[0].type()), (b"busy", "text/plain"))

    def test_each_kind_of_broken_answer(self):
        request = b"GET /KAVRO/System/deviceInfo HTTP/1.1\r\nHost: x\r\n\r\n"
        for kind, check in (("refuse", lambda got: got == b""),
                            ("garbage", lambda got: got and client.status_of(got) is None),
                            ("cut", lambda got: client.status_of(got) == 200 and got[-1:] != b"}"),
                            ("empty", lambda got: b"Content-Length: 0\r\n" in got)):
            self.order(fault={"kind": kind, "count": 1})
            self.assertTrue(check(client.send_raw(self.devices.port(), request)), kind)

    def test_senseless_orders_are_refused(self):
        for order in ({"fault": {"kind": "explode"}}, {"fault": {"delayMs": -1}},
                      {"alarm": {"count": 0}}, {"alarm": {"alert": []}}, {"alarm": 5},
                      {"fault": {"bytes": 10**9, "kind": "large"}}):
            self.assertEqual(self.device.post("/control", json.dumps(order)).status, 400, order)

    def test_alarms_come_in_every_framing_and_are_lost_without_a_listener(self):
        self.order(alarm={"count": 1000, "perSecond": 100000})
        harness.wait_until(lambda: self.devices.state()["alarmsRaised"] == 1000)
        self.assertEqual(self.devices.state()["alarmsSent"], 0)
        for framing in ({}, {"lengths": False}, {"chunked": True}, {"split": 5}):
            self.order(alertStream=framing)
            with socket.create_connection(("127.0.0.1", self.devices.port()), 5) as connection:
                connection.sendall(b"GET /KAVRO/Event/notification/alertStream?format=json "
                                   b"HTTP/1.1\r\nHost: x\r\n\r\n")
                harness.wait_until(lambda: self.devices.state()["alertStreams"] == 1)
                self.order(alarm={"count": 3, "alert": {"eventType": "special",
                                                        "eventDescription": None}})
                received = b""
                while received.count(b'"eventType":"special"') < 3:
                    piece = connection.recv(65536)
                    self.assertTrue(piece, f"{framing}: the stream ended")
                    received += piece
            self.assertNotIn(b"eventDescription", received)
            self.assertEqual(b"Content-Length" in received, framing.get("lengths", True))
            self.assertEqual(b"Transfer-Encoding" in received, "chunked" in framing)
            harness.wait_until(lambda: self.devices.state()["alertStreams"] == 0)


class Login(DeviceTest):
    device_options = ("--username", "camera", "--password", "secret")

    def test_login_lock_and_unlock(self):
        url = "/KAVRO/System/deviceInfo?a=1"
        good = self.client(user="camera", password="secret")
        self.assertEqual(self.device.get(url).status, 401)
        self.assertEqual(good.get(url).status, 200)
        for _ in range(5):
            self.assertEqual(self.client(user="camera", password="x").get(url).status, 401)
        state = self.devices.state()
        self.assertEqual((state["wrongLogins"], state["locked"]), (5, True))
        self.assertEqual(good.get(url).status, 403)
        self.order(unlock=True)
        self.assertEqual(good.get(url).status, 200)


if __name__ == "__main__":
    unittest.main()
