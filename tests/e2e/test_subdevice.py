"""The simulated devices by themselves: what the other conversations rely on."""
import json
import signal
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
        self.device = self.client(1)

    def client(self, number, **more):
        one = client.Client(self.devices.port(number), **more)
        self.addCleanup(one.close)
        return one

    def order(self, **orders):
        self.devices.order(1, **orders)


class Documents(DeviceTest):
    device_options = ("--type", "IPCamera", "NVR")

    def test_every_device_describes_itself(self):
        for number, kind in ((1, "IPCamera"), (2, "NVR")):
            info = self.client(number).get("/KAVRO/System/deviceInfo?format=json").json()
            self.assertEqual(info["DeviceInfo"]["deviceType"], kind)
            self.assertTrue(info["DeviceInfo"]["serialNumber"].endswith(str(number)))

    def test_only_a_camera_has_audio_channels_of_its_own(self):
        self.assertEqual(self.device.get("/KAVRO/System/Audio/channels").status, 200)
        self.assertEqual(self.client(2).get("/KAVRO/System/Audio/channels").status, 404)

    def test_what_is_put_is_what_the_next_get_shows(self):
        change = {"StreamingChannel": {"id": "7", "channelName": "Yard", "Video": {
            "maxFrameRate": 600}, "Transport": {"ControlProtocolList": [
                None, {"ControlProtocol": {"streamingTransport": "HTTP"}}]}}}
        self.assertEqual(
            self.device.put("/KAVRO/Streaming/channels/201", json.dumps(change)).status, 200)
        stream = self.device.get("/KAVRO/Streaming/channels/201").json()["StreamingChannel"]
        self.assertEqual((stream["id"], stream["channelName"]), ("201", "Yard"))
        self.assertEqual((stream["Video"]["maxFrameRate"], stream["Video"]["videoResolutionWidth"]),
                         (600, 1920))
        self.assertEqual(stream["Transport"]["ControlProtocolList"],
                         [{"ControlProtocol": {"streamingTransport": "HTTP"}}])

    def test_the_list_holds_main_sub_and_custom_streams(self):
        streams = self.device.get("/KAVRO/Streaming/channels").json()["StreamingChannelList"]
        self.assertEqual([entry["StreamingChannel"]["id"] for entry in streams],
                         ["101", "102", "103", "201", "202", "203"])

    def test_bad_requests_get_a_status_document(self):
        cases = (("GET", "/KAVRO/No/such/thing", "", 404, 4),
                 ("GET", "/KAVRO/Streaming/channels/999", "", 404, 4),
                 ("GET", "/KAVRO/Streaming/channels/99999999999", "", 404, 4),
                 ("DELETE", "/KAVRO/System/deviceInfo", "", 404, 4),
                 ("PUT", "/KAVRO/Streaming/channels/101", "<xml/>", 400, 5),
                 ("PUT", "/KAVRO/Streaming/channels/101", '{"StreamingChannel": 1}', 400, 5),
                 ("PUT", "/KAVRO/Streaming/channels/101",
                  '{"StreamingChannel": {"Video": {"maxFrameRate": 0}}}', 400, 6),
                 ("PUT", "/KAVRO/System/time", '{"Time": {"new": 1}}', 400, 6),
                 ("PUT", "/KAVRO/PTZCtrl/channels/1/continuous", '{"PTZData": {"pan": "x"}}', 400, 6),
                 ("PUT", "/KAVRO/PTZCtrl/channels/1/continuous", '{"PTZData": {"pan": 101}}', 400, 6),
                 ("PUT", "/KAVRO/System/IO/outputs/1/trigger",
                  '{"IOPortData": {"outputState": "High"}}', 400, 6),
                 ("POST", "/KAVRO/ContentMgmt/search", "[" * 5000, 400, 5))
        for method, url, body, status, code in cases:
            with self.subTest(method=method, url=url, body=body[:60]):
                answer = self.device.request(method, url, body)
                self.assertEqual((answer.status, answer.json()["statusCode"]), (status, code))

    def test_presets_are_kept_found_and_forgotten(self):
        preset = "/KAVRO/PTZCtrl/channels/1/presets/5"
        self.assertEqual(self.device.put(preset + "/goto").status, 404)
        self.device.put(preset, json.dumps({"PTZPreset": {"id": "5", "presetName": "Gate"}}))
        listed = self.device.get("/KAVRO/PTZCtrl/channels/1/presets").json()["PTZPresetList"]
        self.assertIn({"PTZPreset": {"id": "5", "presetName": "Gate", "enabled": True}}, listed)
        self.assertEqual(self.device.put(preset + "/goto").status, 200)
        self.assertEqual(self.device.delete(preset).status, 200)
        self.assertEqual(self.device.delete(preset).status, 404)

    def test_a_head_moves_until_it_is_sent_home(self):
        status = "/KAVRO/PTZCtrl/channels/2/status"
        self.device.put("/KAVRO/PTZCtrl/channels/2/continuous",
                        json.dumps({"PTZData": {"pan": -100}}))
        harness.wait_until(lambda: self.device.get(status).json()["PTZStatus"]["pan"] < 0, 5)
        self.device.put("/KAVRO/PTZCtrl/channels/2/homeposition/goto")
        self.assertEqual(self.device.get(status).json()["PTZStatus"],
                         {"pan": 0.0, "tilt": 0.0, "zoom": 0.0, "moving": False})

    def search(self, **description):
        answer = self.device.post("/KAVRO/ContentMgmt/search",
                                  json.dumps({"CMSearchDescription": description}))
        return answer.json()["CMSearchResult"]

    def test_a_search_finds_what_overlaps_and_pages(self):
        span = [{"timeSpan": {"startTime": "2026-01-01T05:30:00Z",
                              "endTime": "2026-01-01T08:10:00Z"}}]
        track = [{"trackID": 202}]
        starts = []
        for position, state in ((0, "more"), (2, "complete")):
            page = self.search(searchID="s", trackIDList=track, timeSpanList=span, maxResults=2,
                               searchResultPostion=position)
            self.assertEqual((page["searchID"], page["responseStatusStrg"]), ("s", state))
            starts += [match["searchMatchItem"]["timeSpan"]["startTime"][11:13]
                       for match in page["matchList"]]
        self.assertEqual(starts, ["05", "06", "07", "08"])
        self.assertEqual(self.search(trackIDList=[{"trackID": 901}])["numOfMatches"], 0)

    def test_playback_uris_have_the_devices_own_form(self):
        match = self.search(trackIDList=[{"trackID": 202}], maxResults=1)["matchList"][0]
        uri = match["searchMatchItem"]["mediaSegmentDescriptor"]["playbackURI"]
        self.assertRegex(uri, r"^rtsp://127\.0\.0\.1:554/.*/dac/.*/camera/[0-9a-f-]{36}2/SUB/\?")

    def test_the_snapshot_is_a_picture(self):
        answer = self.device.get("/KAVRO/Streaming/channels/101/picture")
        self.assertEqual(answer.type(), "image/png")
        data = answer.body[answer.body.index(b"IDAT"):]
        size = struct.unpack(">I", answer.body[answer.body.index(b"IDAT") - 4:][:4])[0]
        self.assertEqual(zlib.crc32(data[:4 + size]), struct.unpack(">I", data[4 + size:8 + size])[0])
        self.assertEqual(len(zlib.decompress(data[4:4 + size])), 48 * 65)

    def test_a_face_picture_is_fetched_from_its_url(self):
        picture = self.device.get("/KAVRO/Streaming/channels/102/picture").body
        for name, url, state in (("1", self.devices.urls[0] + "/KAVRO/Streaming/channels/102/picture",
                                  "stored"), ("2", "http://127.0.0.1:1/gone", "failed")):
            self.device.post("/KAVRO/Intelligent/FDLib/FaceDataRecord",
                             json.dumps({"FaceInfo": {"employeeNo": name, "faceURL": url}}))
            face = harness.wait_until(lambda: self.face(name, state), what=f"picture {state}")
            if state == "stored":
                fetched = self.device.get(
                    f"/KAVRO/Intelligent/FDLib/FaceDataRecord/{face['id']}/picture")
                self.assertEqual(fetched.body, picture)

    def face(self, name, state):
        document = self.device.get("/KAVRO/Intelligent/FDLib/FaceDataRecord").json()
        for entry in document["FaceRecordList"]:
            if entry["FaceRecord"]["name"] == name and entry["FaceRecord"]["pictureState"] == state:
                return entry["FaceRecord"]
        return None


class Control(DeviceTest):
    def tearDown(self):
        self.devices.no_fault()

    def test_faults_hit_as_often_as_ordered(self):
        self.order(fault={"kind": "reply", "count": 2, "httpStatus": 503, "body": "busy",
                          "url": "/System/", "contentType": "text/plain"})
        url = "/KAVRO/System/deviceInfo"
        self.assertEqual(self.device.get("/KAVRO/Smart/capabilities").status, 200)
        answers = [self.device.get(url) for _ in range(3)]
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
        self.order(fault={"kind": "large", "bytes": 3000000, "count": 1})
        self.assertEqual(len(self.device.get("/KAVRO/x").body), 3000000)

    def test_hanging_keeps_the_connection_without_a_word(self):
        self.order(fault={"kind": "hang", "count": 1})
        with self.assertRaises(TimeoutError):
            self.client(1, timeout=0.3).get("/KAVRO/System/deviceInfo")

    def test_senseless_orders_are_refused(self):
        for order in ({"fault": {"kind": "explode"}}, {"fault": {"delayMs": -1}},
                      {"alarm": {"count": 0}}, {"alarm": {"alert": []}}, {"alarm": 5},
                      {"fault": {"bytes": 10**9, "kind": "large"}}):
            self.assertEqual(self.device.post("/control", json.dumps(order)).status, 400, order)
        self.assertEqual(self.device.get("/KAVRO/System/deviceInfo").status, 200)

    def test_a_device_can_be_switched_off_and_on(self):
        self.order(listening=False)
        with self.assertRaises(OSError):
            client.Client(self.devices.port(1)).get("/KAVRO/System/deviceInfo")
        self.assertEqual(self.client(2).get("/KAVRO/System/deviceInfo").status, 200)
        self.order(listening=True)
        self.assertEqual(self.client(1).get("/KAVRO/System/deviceInfo").status, 200)

    def test_the_log_shows_what_was_sent(self):
        self.order(clearLog=True)
        self.device.put("/KAVRO/System/time?a=b", '{"Time": {"timeZone": "UTC1"}}')
        entry, = self.devices.state()["log"]
        self.assertEqual((entry["method"], entry["url"], entry["body"]),
                         ("PUT", "/KAVRO/System/time?a=b", '{"Time": {"timeZone": "UTC1"}}'))


class AlertStream(DeviceTest):
    def open(self):
        connection = socket.create_connection(("127.0.0.1", self.devices.port()), 5)
        self.addCleanup(connection.close)
        connection.sendall(b"GET /KAVRO/Event/notification/alertStream?format=json HTTP/1.1\r\n"
                           b"Host: x\r\n\r\n")
        return connection

    def read_until(self, connection, text, times):
        received = b""
        while received.count(text) < times:
            piece = connection.recv(65536)
            self.assertTrue(piece, "the stream ended")
            received += piece
        return received

    def raise_alarms(self, framing, **alarm):
        self.order(alertStream=framing)
        connection = self.open()
        harness.wait_until(lambda: self.devices.state()["alertStreams"] >= 1)
        self.order(alarm=alarm)
        return connection

    def test_alarms_come_as_ordered_in_every_framing(self):
        for framing in ({}, {"lengths": False}, {"chunked": True}, {"split": 5}):
            with self.subTest(framing=framing):
                connection = self.raise_alarms(
                    framing, count=3, alert={"eventType": "special", "eventDescription": None})
                received = self.read_until(connection, b'"eventType":"special"', 3)
                self.assertNotIn(b"eventDescription", received)
                self.assertEqual(b"Content-Length" in received, framing.get("lengths", True))
                self.assertEqual(b"Transfer-Encoding" in received, "chunked" in framing)
                connection.close()
                harness.wait_until(lambda: self.devices.state()["alertStreams"] == 0)

    def test_an_alarm_without_a_listener_is_counted_and_gone(self):
        before = self.devices.state()
        self.order(alarm={"count": 1000, "perSecond": 100000})
        harness.wait_until(
            lambda: self.devices.state()["alarmsRaised"] == before["alarmsRaised"] + 1000)
        self.assertEqual(self.devices.state()["alarmsSent"], before["alarmsSent"])


class Login(DeviceTest):
    device_options = ("--username", "camera", "--password", "secret")

    def test_login_lock_and_unlock(self):
        url = "/KAVRO/System/deviceInfo?a=1"
        good = self.client(1, user="camera", password="secret")
        self.assertEqual(self.device.get(url).status, 401)
        self.assertEqual(good.get(url).status, 200)
        self.order(expireNonces=True)
        self.assertEqual(good.get(url).status, 200, "a stale nonce is renewed")
        self.assertEqual(self.devices.state()["wrongLogins"], 0)
        for _ in range(5):
            self.assertEqual(self.client(1, user="camera", password="x").get(url).status, 401)
        self.assertEqual((self.devices.state()["wrongLogins"], self.devices.state()["locked"]),
                         (5, True))
        self.assertEqual(good.get(url).status, 403)
        self.order(unlock=True)
        self.assertEqual(good.get(url).status, 200)


class Ending(unittest.TestCase):
    def test_sigterm_with_an_open_stream_ends_well(self):
        devices = harness.Subdevices(1)
        with socket.create_connection(("127.0.0.1", devices.port()), 5) as connection:
            connection.sendall(b"GET /KAVRO/Event/notification/alertStream HTTP/1.1\r\n"
                               b"Host: x\r\n\r\n")
            self.assertTrue(connection.recv(100))
            devices.signal(signal.SIGTERM)
            devices.stop()


if __name__ == "__main__":
    unittest.main()
