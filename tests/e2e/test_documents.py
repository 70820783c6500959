"""The translated documents, one conversation for each family, as a client uses them."""
import re
import subprocess
import unittest

import harness

STREAM = "/KAVRO/Streaming/channels/101"
PTZ = "/KAVRO/PTZCtrl/channels"
DECLARATION = b'<?xml version="1.0" encoding="UTF-8"?>'


class Documents(harness.GatewayTest):
    device_options = ("--type", "IPCamera", "NVR")

    def setUp(self):
        self.one = self.client()

    def get(self, url, root):
        answer = self.one.get(url)
        self.assertEqual((answer.status, answer.type()), (200, "application/xml"), answer)
        self.assertTrue(answer.body.startswith(DECLARATION), answer)
        self.assertEqual(answer.xml().tag, root)
        return answer.xml()

    def device_get(self, path):
        with harness.client.Client(self.devices.port()) as device:
            return device.get(path).json()

    def assert_done(self, answer):
        self.assertEqual((answer.status, answer.xml().tag, answer.xml().findtext("statusCode")),
                         (200, "ResponseStatus", "1"), answer)

    def asked(self, method, url, body=b""):
        """The answer, and what the device was asked for one request."""
        self.devices.order(clearLog=True)
        return self.one.request(method, url, body), self.devices.requests()

    def test_curl_reads_the_device_information(self):
        url = f"http://127.0.0.1:{self.gateway.port}/KAVRO/System/deviceInfo"
        curl = subprocess.run(["curl", "--silent", "--show-error", "--max-time", "20", "--digest",
                               "--user", f"admin:{harness.PASSWORD}", "--write-out",
                               "\n%{http_code} %{content_type}", url],
                              capture_output=True, text=True, check=True)
        document, _, result = curl.stdout.rpartition("\n")
        self.assertEqual(result, "200 application/xml")
        self.assertIn("<serialNumber>SIM000000001</serialNumber>", document)

    def test_users_see_their_own_device(self):
        self.assertEqual(self.get("/KAVRO/System/deviceInfo", "DeviceInfo").findtext("deviceType"),
                         "IPCamera")
        inputs = self.get("/KAVRO/System/Video/inputs/channels", "VideoInputChannelList")
        self.assertEqual([channel.findtext("id") for channel in inputs], ["1", "2"])
        audio = "/KAVRO/System/Audio/channels"
        self.assertEqual([[part.text for part in channel]
                          for channel in self.get(audio, "AudioChannelList")],
                         [["1", "true", "input", "Microphone"], ["2", "false", "output", "Speaker"]])
        self.one = self.client("operator")
        self.assertEqual(self.get("/KAVRO/System/deviceInfo", "DeviceInfo").findtext("deviceType"),
                         "NVR")
        self.assertEqual([[part.text for part in channel]
                          for channel in self.get(audio, "AudioChannelList")],
                         [["1", "true"], ["2", "true"]])

    def test_access_protocols_are_the_gateways_own_ports(self):
        protocols = self.get("/KAVRO/Security/adminAccesses", "AdminAccessProtocolList")
        self.assertEqual([tuple(part.text for part in protocol) for protocol in protocols],
                         [("1", "true", "HTTP", str(self.gateway.port)),
                          ("2", "true", "RTSP", "554"), ("3", "false", "HTTPS", "443")])

    def test_a_stream_can_be_read_edited_and_put_back(self):
        text = self.one.get(STREAM).body.decode()
        edited = re.sub("<channelName>.*?<", "<channelName>Yard &amp; gate<", text).replace(
            "<maxFrameRate>2500<", "<maxFrameRate>600<")
        self.assert_done(self.one.put(STREAM, edited))
        found = self.get(STREAM, "StreamingChannel")
        self.assertEqual((found.findtext("channelName"), found.findtext("Video/maxFrameRate")),
                         ("Yard & gate", "600"))
        self.assertEqual([part.tag for part in found.iter()],
                         re.findall(r"<(\w+)", text.partition("\r\n")[2]))
        listed = self.get("/KAVRO/Streaming/channels", "StreamingChannelList")
        self.assertEqual([one.findtext("id") for one in listed], ["101", "102", "201", "202"])

    def test_unusable_documents_reach_no_device(self):
        for url, body in ((STREAM, b"no XML"), (STREAM, b"<StreamingChannel/>"),
                          (PTZ + "/1/continuous", b"{}"), ("/KAVRO/System/IO/outputs/2/trigger",
                           b"<IOPortData><outputState>High</outputState></IOPortData>")):
            answer, requests = self.asked("PUT", url, body)
            self.assertEqual((answer.status, requests), (400, []), body)

    def test_a_camera_is_moved_and_sent_to_presets(self):
        channels = self.get(PTZ, "PTZChannelList")
        self.assertEqual([channel.findtext("id") for channel in channels], ["1", "2"])
        status, preset = PTZ + "/1/status", PTZ + "/1/presets/7"
        self.assert_done(self.one.put(PTZ + "/1/continuous",
                                      "<PTZData><pan>-60</pan><tilt>20</tilt></PTZData>"))
        harness.wait_until(lambda: self.device_get(status)["PTZStatus"]["pan"] < 0, 5)
        self.assert_done(self.one.put(PTZ + "/1/homeposition/goto"))
        self.assertFalse(self.device_get(status)["PTZStatus"]["moving"])
        self.assertEqual(self.one.put(preset + "/goto").status, 403)
        self.assert_done(self.one.put(preset, "<PTZPreset><enabled>true</enabled><id>7</id>"
                                      "<presetName>Gate</presetName></PTZPreset>"))
        self.assertIn({"PTZPreset": {"id": "7", "presetName": "Gate", "enabled": True}},
                      self.device_get(PTZ + "/1/presets")["PTZPresetList"])
        self.assert_done(self.one.put(preset + "/goto"))
        self.assert_done(self.one.delete(preset))
        self.assertEqual(self.one.delete(preset).status, 403)

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
            self.assertEqual((answer.status, answer.xml().tag), (200, "CMSearchResult"), answer)
            matches += answer.xml().findall("matchList/searchMatchItem")
        self.assertEqual([item.findtext("timeSpan/startTime")[11:13] for item in matches],
                         ["05", "06", "07", "08"])
        self.assertEqual(matches[0].findtext("mediaSegmentDescriptor/playbackURI"),
                         "rtsp://127.0.0.1:554/sim/KAVRO/Streaming/tracks/202"
                         "?starttime=20260101T050000Z&endtime=20260101T055959Z")

    def test_capabilities_and_io_ports(self):
        self.assertEqual(self.get("/KAVRO/Smart/capabilities", "SmartCap")[0].tag, "isSupportROI")
        ports = self.get("/KAVRO/System/IO", "IOPortList")
        self.assertEqual([[part.text for part in port] for port in ports.find("IOInputPortList")],
                         [["1", "true", "high", "Door contact"], ["2", "true", "low"]])
        self.assert_done(self.one.put("/KAVRO/System/IO/outputs/2/trigger",
                                      "<IOPortData><outputState>high</outputState></IOPortData>"))
        state = self.device_get("/KAVRO/System/IO/outputs/2/status")["IOPortStatus"]
        self.assertEqual(state["ioState"], "high")
        _, requests = self.asked("GET", "/KAVRO/Image/channels/1/capabilities")
        self.assertEqual(requests, [("GET", STREAM + "?format=json&devIndex=1")])

    def test_what_is_not_there(self):
        answer = self.one.get("/index.html")
        self.assertEqual((answer.status, answer.type(), answer.json()["statusCode"]),
                         (404, "application/json", 4))
        answer = self.client("lost").get("/KAVRO/System/deviceInfo")
        self.assertEqual((answer.status, [name for name, _ in answer.children()]), (
            404, ["requestURL", "statusCode", "statusString", "subStatusCode"]), answer)


if __name__ == "__main__":
    unittest.main()
