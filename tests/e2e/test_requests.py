"""Requests to devices: one conversation for each family of translated documents, what is passed
through, face pictures, and devices that are gone, lie or ask for a login."""
import json
import re
import subprocess
import tempfile

import client
import harness
from harness import FACES, JPEG

INFO = "/KAVRO/System/deviceInfo"
TIME = "/KAVRO/System/time"  # passed through
STREAM = "/KAVRO/Streaming/channels/101"
PTZ = "/KAVRO/PTZCtrl/channels"


class RequestTest(harness.GatewayTest):
    device_options = ("--type", "IPCamera", "NVR")

    def setUp(self):
        self.one = self.client()

    def get(self, url, root):
        answer = self.one.get(url)
        self.assertEqual((answer.status, answer.type(), answer.xml().tag),
                         (200, "application/xml", root), answer)
        return answer.xml()

    def texts(self, url, root):
        return [[part.text for part in entry] for entry in self.get(url, root)]

    def of_device(self, path):
        with client.Client(self.devices.port()) as device:
            return device.get(path)

    def assert_done(self, method, url, body=b""):
        answer = self.one.request(method, url, body)
        self.assertEqual((answer.status, answer.xml().tag, answer.xml().findtext("statusCode")),
                         (200, "ResponseStatus", "1"), answer)

    def curl(self, *arguments):
        """The document and the status that curl's user gets."""
        done = subprocess.run(["curl", "--silent", "--show-error", "--max-time", "20", "--digest",
                               "--user", f"admin:{harness.PASSWORD}", "--write-out",
                               "\n%{http_code}", *arguments], capture_output=True, text=True, check=True)
        return done.stdout.rpartition("\n")[::2]


class Documents(RequestTest):
    def test_users_see_their_own_device(self):
        document, status = self.curl(f"http://127.0.0.1:{self.gateway.port}{INFO}")
        self.assertIn("<serialNumber>SIM000000001</serialNumber>", document)
        self.assertEqual(status, "200")
        self.assertEqual(self.get(INFO, "DeviceInfo").findtext("deviceType"), "IPCamera")
        self.assertEqual(self.texts("/KAVRO/System/Video/inputs/channels", "VideoInputChannelList"),
                         [["1", "1", "Camera 1"], ["2", "2", "Camera 2"]])
        self.assertEqual(self.texts("/KAVRO/System/Audio/channels", "AudioChannelList"),
                         [["1", "true", "input", "Microphone"], ["2", "false", "output", "Speaker"]])
        self.assertEqual(
            self.texts("/KAVRO/Security/adminAccesses", "AdminAccessProtocolList"),
            [["1", "true", "HTTP", str(self.gateway.port)], ["2", "true", "RTSP", "554"],
             ["3", "false", "HTTPS", "443"]])
        self.one = self.client("operator")
        self.assertEqual(self.get(INFO, "DeviceInfo").findtext("deviceType"), "NVR")
        self.assertEqual(self.texts("/KAVRO/System/Audio/channels", "AudioChannelList"),
                         [["1", "true"], ["2", "true"]])
        for url, user, status in (("/index.html", "admin", 404), (INFO, "lost", 404)):
            self.assertEqual(self.client(user).get(url).status, status)

    def test_a_stream_can_be_read_edited_and_put_back(self):
        text = self.one.get(STREAM).body.decode()
        edited = re.sub("<channelName>.*?<", "<channelName>Yard &amp; gate<", text).replace(
            "<maxFrameRate>2500<", "<maxFrameRate>600<")
        self.assert_done("PUT", STREAM, edited)
        found = self.get(STREAM, "StreamingChannel")
        self.assertEqual((found.findtext("channelName"), found.findtext("Video/maxFrameRate")),
                         ("Yard & gate", "600"))
        listed = self.get("/KAVRO/Streaming/channels", "StreamingChannelList")
        self.assertEqual([one.findtext("id") for one in listed], ["101", "102", "201", "202"])
        self.devices.order(clearLog=True)
        self.assertEqual(self.one.put(STREAM, b"<StreamingChannel/>").status, 400)
        self.assertEqual(self.devices.requests(), [])

    def test_a_camera_is_moved_and_sent_to_presets(self):
        self.assertEqual([entry[0] for entry in self.texts(PTZ, "PTZChannelList")], ["1", "2"])
        self.assert_done("PUT", PTZ + "/1/continuous", "<PTZData><pan>-60</pan></PTZData>")
        harness.wait_until(lambda: self.of_device(PTZ + "/1/status").json()["PTZStatus"]["pan"] < 0)
        self.assert_done("PUT", PTZ + "/1/homeposition/goto")
        preset = PTZ + "/1/presets/7"
        self.assertEqual(self.one.put(preset + "/goto").status, 403)
        self.assert_done("PUT", preset, "<PTZPreset><enabled>true</enabled><id>7</id>"
                         "<presetName>Gate</presetName></PTZPreset>")
        self.assertIn({"PTZPreset": {"id": "7", "presetName": "Gate", "enabled": True}},
                      self.of_device(PTZ + "/1/presets").json()["PTZPresetList"])
        self.assert_done("PUT", preset + "/goto")
        self.assert_done("DELETE", preset)

    def test_recordings_are_found_page_by_page(self):
        matches = []
        for position in (0, 2):
            answer = self.one.post(
                "/KAVRO/ContentMgmt/search",
                "<CMSearchDescription><searchID>s1</searchID><trackIDList><trackID>202</trackID>"
                "</trackIDList><timeSpanList><timeSpan><startTime>2026-01-01T05:30:00Z</startTime>"
                "<endTime>2026-01-01T08:10:00Z</endTime></timeSpan></timeSpanList><maxResults>2"
                f"</maxResults><searchResultPostion>{position}</searchResultPostion>"
                "</CMSearchDescription>")
            matches += answer.xml().findall("matchList/searchMatchItem")
        self.assertEqual([item.findtext("timeSpan/startTime")[11:13] for item in matches],
                         ["05", "06", "07", "08"])
        self.assertEqual(matches[0].findtext("mediaSegmentDescriptor/playbackURI"),
                         "rtsp://127.0.0.1:554/sim/KAVRO/Streaming/tracks/202"
                         "?starttime=20260101T050000Z&endtime=20260101T055959Z")

    def test_capabilities_and_io_ports(self):
        self.assertEqual(self.get("/KAVRO/Smart/capabilities", "SmartCap")[0].tag, "isSupportROI")
        ports = self.get("/KAVRO/System/IO", "IOPortList")
        self.assertEqual(ports.findtext("IOInputPortList/IOInputPort/name"), "Door contact")
        self.assert_done("PUT", "/KAVRO/System/IO/outputs/2/trigger",
                         "<IOPortData><outputState>high</outputState></IOPortData>")
        state = self.of_device("/KAVRO/System/IO/outputs/2/status").json()["IOPortStatus"]
        self.assertEqual(state["ioState"], "high")


class PassedThrough(RequestTest):
    def test_requests_and_replies_are_not_touched(self):
        for method, url, sent in (("PUT", "/KAVRO/Door?x=%26", b"<Door/>"),
                                  ("PATCH", "/KAVRO/Door", b"\x00\xff"),
                                  ("DELETE", "/KAVRO/Door//1/", b""),
                                  ("PUT", "/KAVRO/Import", b"x" * (9 * 1024 * 1024))):
            self.devices.order(clearLog=True)
            self.one.request(method, url, sent)
            entry, = self.devices.state()["log"]
            self.assertEqual(
                (entry["method"], entry["url"], entry["bodyBytes"]),
                (method, url + ("&" if "?" in url else "?") + "devIndex=1", len(sent)))
        self.assertEqual(self.one.get(STREAM + "/picture").body,
                         self.of_device(STREAM + "/picture").body)
        whole = "".join(f"{i:08x}" for i in range(100_000))
        for size in (16_000, 33_000, 200_000, len(whole)):
            self.devices.fault(kind="reply", body=whole[:size])
            self.assertEqual(self.one.get("/KAVRO/Export").body.decode(), whole[:size])
        self.devices.fault(kind="large", bytes=10 * 1024 * 1024)
        self.assertEqual(len(self.one.get("/KAVRO/Export").body), 10 * 1024 * 1024)

    def test_no_client_reaches_another_users_device(self):
        before = self.devices.state(2)["requests"]
        for url in (TIME + "?devIndex=2", TIME + "?devIndex=1&devIndex=2", TIME + "?x&devIndex=2#",
                    TIME + "?%64evIndex=2", INFO + "?devIndex=2&"):
            self.one.get(url)
        self.assertEqual(self.devices.state(2)["requests"], before)


class FacePictures(RequestTest):
    sections = {"pictures": {"max_count": 2, "full": "refuse"}}

    def stored_by_device(self, name):
        """The path of the picture in the store, once the device has fetched it, and the picture."""
        for entry in self.of_device(FACES).json()["FaceRecordList"]:
            face = entry["FaceRecord"]
            if face["name"] == name and face["pictureState"] == "stored":
                path = re.fullmatch(r"http://127\.0\.0\.1:(\d+)(/NovGatewayStorage/[0-9a-f]{32}"
                                    r"\.jpg)", face["record"]["faceURL"]).group(2)
                return path, self.of_device(f"{FACES}/{face['id']}/picture").body
        return None

    def fetch(self, path, port=None):
        with client.Client(port or self.gateway.sections["network"]["picture_port"]) as anybody:
            return anybody.get(path)

    def test_pictures_reach_the_device_and_stay_within_the_store(self):
        with tempfile.NamedTemporaryFile(suffix=".jpg") as picture:
            picture.write(JPEG)
            picture.flush()
            document, status = self.curl(
                "-F", 'record={"FaceInfo": {"employeeNo": "curl"}};type=application/json',
                "-F", f"img=@{picture.name}",
                f"http://127.0.0.1:{self.gateway.port}{FACES}?format=json")
        self.assertEqual((status, json.loads(document)["statusCode"]), ("200", 1))
        path, fetched = harness.wait_until(lambda: self.stored_by_device("curl"))
        self.assertEqual(fetched, JPEG)
        for port in (None, self.gateway.port):
            answer = self.fetch(path, port)
            self.assertEqual((answer.type(), answer.body), ("image/jpeg", JPEG))
        self.assertEqual(harness.upload(self.one, "gif", "image/gif").status, 415)
        self.assertEqual(self.one.get(INFO).status, 200, "one answer for each request")
        harness.wait_until(lambda: ("POST", FACES + "?format=json&devIndex=1")
                           in self.devices.requests(), what="the request that goes on all the same")
        self.assertEqual(harness.upload(self.one, "second").status, 200)
        full = harness.upload(self.one, "third")
        self.assertEqual((full.status, full.xml().findtext("subStatusCode")),
                         (503, "pictureStoreFull"))

        self.gateway.child.kill()
        self.gateway.wait()
        self.gateway.start()
        self.assertEqual(self.fetch(path).body, JPEG)
        self.gateway.sections["pictures"]["full"] = "drop_oldest"
        self.reconfigure()
        self.one = self.client()
        self.assertEqual(harness.upload(self.one, "third").status, 200)
        self.assertEqual(self.fetch(path).status, 404)


class Faults(RequestTest):
    def assert_error(self, url, status, reason):
        answer = self.client().get(url)
        self.assertEqual((answer.status, answer.type(), answer.json()["subStatusCode"]),
                         (status, "application/json", reason), answer)

    def test_a_switched_off_device_is_reported_and_comes_back(self):
        self.devices.order(listening=False)
        self.addCleanup(self.devices.order, listening=True)
        for url in (INFO, TIME):
            self.assert_error(url, 503, "deviceUnreachable")
            self.assert_serving("operator")
        self.devices.order(listening=True)
        harness.wait_until(lambda: self.client().get(INFO).status == 200, what="the device's return")

    def test_nonsense_costs_one_answer_and_nothing_else(self):
        before = self.gateway.descriptors()
        for kind in ("refuse", "cut", "garbage") * 15:
            self.devices.fault(kind=kind)
            for url in (INFO, TIME):
                self.assert_error(url, 502, "deviceReplyUnusable")
            self.doCleanups()
        harness.wait_until(lambda: self.gateway.descriptors() <= before + 8)
        bomb = ('<!DOCTYPE d [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;">'
                '<!ENTITY c "&b;&b;&b;&b;&b;&b;&b;&b;">]><ResponseStatus>&c;</ResponseStatus>')
        self.one = self.client()
        for body, translated, passed in (
                ("{}", 500, 200), ('{"DeviceInfo": {"deviceName": 5}}', 500, 200), (bomb, 200, 200),
                ('{"DeviceInfo":' + "[" * 100000, 200, 200), ("<a>" * 50000, 200, 200),
                ("<ResponseStatus><statusCode>4</statusCode></ResponseStatus>", 403, 403)):
            self.devices.fault(kind="reply", body=body)
            for url, status in ((INFO, translated), (TIME, passed)):
                self.assertEqual(self.one.get(url).status, status, body[:60])
        self.devices.fault(kind="large", bytes=40 * 1024 * 1024)
        self.assert_error(INFO, 502, "deviceReplyUnusable")
        self.devices.no_fault()
        self.assert_serving()


class DeviceLogin(harness.GatewayTest):
    device_options = ("--username", "camera", "--password", "secret")

    @classmethod
    def device_tables(cls):
        return [{**table, "username": "camera", "password": password}
                for table, password in zip(super().device_tables(), ("secret", "wrong"))]

    def test_right_credentials_are_kept_and_wrong_ones_not_tried_until_the_camera_locks(self):
        one = self.client()
        self.assertEqual(one.get(INFO).status, 200)
        self.devices.order(expireNonces=True)
        self.assertEqual(one.put(TIME, json.dumps({"Time": {"timeMode": "NTP"}})).status, 200)
        self.assertEqual(self.devices.state()["wrongLogins"], 0)
        for _ in range(10):
            self.assertEqual(self.client("operator").get(INFO).json()["subStatusCode"],
                             "deviceLoginRefused")
        self.assertFalse(self.devices.state(2)["locked"])
