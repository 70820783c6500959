"""Streaming and audio channels, PTZ, recording search, capabilities and IO, as a client uses them."""
import re
import unittest
import xml.etree.ElementTree as ElementTree

import harness

STREAM = "/KAVRO/Streaming/channels/101"
PTZ = "/KAVRO/PTZCtrl/channels"


class ChannelTest(harness.GatewayTest):
    device_options = ("--type", "IPCamera", "NVR")

    def setUp(self):
        self.one = self.client()

    def get(self, url, root):
        answer = self.one.get(url)
        self.assertEqual((answer.status, answer.type(), answer.xml().tag),
                         (200, "application/xml", root), answer)
        return answer.xml()

    def device_get(self, path):
        with harness.client.Client(self.devices.port()) as device:
            return device.get(path).json()

    def assert_done(self, answer):
        self.assertEqual((answer.status, answer.xml().tag), (200, "ResponseStatus"), answer)
        self.assertEqual((answer.xml().findtext("statusCode"), answer.xml().findtext("statusString")),
                         ("1", "OK"))

    def asked(self, method, url, body=b""):
        """What the device was asked for one request."""
        self.devices.order(clearLog=True)
        answer = self.one.request(method, url, body)
        return answer, [(entry["method"], entry["url"]) for entry in self.devices.state()["log"]]


class Streams(ChannelTest):
    def test_a_document_can_be_read_edited_and_put_back(self):
        text = self.one.get(STREAM).body.decode()
        self.assertTrue(text.startswith('<?xml version="1.0" encoding="UTF-8"?>\r\n'), text[:60])
        edited = re.sub("<channelName>.*?<", "<channelName>Yard &amp; gate<", text).replace(
            "<maxFrameRate>2500<", "<maxFrameRate>600<")
        self.assert_done(self.one.put(STREAM, edited))
        found = self.get(STREAM, "StreamingChannel")
        self.assertEqual((found.findtext("channelName"), found.findtext("Video/maxFrameRate")),
                         ("Yard & gate", "600"))
        before = ElementTree.fromstring(text.partition("\r\n")[2])
        self.assertEqual([part.tag for part in found.iter()], [part.tag for part in before.iter()])

    def test_the_order_of_the_main_parts(self):
        stream = self.get(STREAM, "StreamingChannel")
        self.assertEqual([part.tag for part in stream],
                         ["id", "channelName", "enabled", "Transport", "Video", "Audio",
                          "enableCABAC", "subStreamRecStatus", "customStreamEnable"])
        self.assertEqual(stream.findtext("Audio/audioSamplingRate"), "8.000000")

    def test_the_list_hides_custom_streams(self):
        listed = self.get("/KAVRO/Streaming/channels", "StreamingChannelList")
        self.assertEqual([one.findtext("id") for one in listed], ["101", "102", "201", "202"])

    def test_channel_numbers_name_the_main_stream(self):
        for asked, device in (("1", "101"), ("2", "201"), ("102", "102"), ("100", "10001")):
            _, requests = self.asked("GET", f"/KAVRO/Streaming/channels/{asked}")
            self.assertEqual(requests, [
                ("GET", f"/KAVRO/Streaming/channels/{device}?format=json&devIndex=1")])

    def test_capabilities_come_through_raw(self):
        answer, requests = self.asked("GET", STREAM + "/capabilities")
        self.assertEqual(requests, [("GET", STREAM + "/capabilities?devIndex=1")])
        self.assertEqual(answer.json()["StreamingChannel"]["id"], "101")

    def test_unusable_documents_reach_no_device(self):
        for body in (b"", b"no XML", b"<Other/>", b"<StreamingChannel/>",
                     b"<StreamingChannel><id>101</id><channelName>n</channelName>"
                     b"<enabled>true</enabled></StreamingChannel>"):
            answer, requests = self.asked("PUT", STREAM, body)
            self.assertEqual((answer.status, requests), (400, []), body)

    def test_audio_channels_of_a_camera_and_of_a_recorder(self):
        camera = self.get("/KAVRO/System/Audio/channels", "AudioChannelList")
        self.assertEqual([[part.text for part in channel] for channel in camera],
                         [["1", "true", "input", "Microphone"], ["2", "false", "output", "Speaker"]])
        self.one = self.client("operator")
        recorder = self.get("/KAVRO/System/Audio/channels", "AudioChannelList")
        self.assertEqual([[part.text for part in channel] for channel in recorder],
                         [["1", "true"], ["2", "true"]])


class Ptz(ChannelTest):
    def test_the_channel_list(self):
        channels = self.get(PTZ, "PTZChannelList")
        self.assertEqual([channel.findtext("id") for channel in channels], ["1", "2"])
        self.assertEqual(channels[0].findtext("PTZRs485Para/baudRate"), "9600")

    def test_move_and_home(self):
        self.assert_done(self.one.put(PTZ + "/1/continuous",
                                      "<PTZData><pan>-60</pan><tilt>20</tilt></PTZData>"))
        status = PTZ + "/1/status"
        harness.wait_until(lambda: self.device_get(status)["PTZStatus"]["pan"] < 0, 5)
        self.assert_done(self.one.put(PTZ + "/1/homeposition/goto"))
        self.assertFalse(self.device_get(status)["PTZStatus"]["moving"])

    def test_presets(self):
        preset = PTZ + "/1/presets/7"
        self.assertEqual(self.one.put(preset + "/goto").status, 403)
        self.assert_done(self.one.put(preset, "<PTZPreset><enabled>true</enabled><id>7</id>"
                                      "<presetName>Gate</presetName></PTZPreset>"))
        self.assertIn({"PTZPreset": {"id": "7", "presetName": "Gate", "enabled": True}},
                      self.device_get(PTZ + "/1/presets")["PTZPresetList"])
        self.assert_done(self.one.put(preset + "/goto"))
        self.assert_done(self.one.delete(preset))
        self.assertEqual(self.one.delete(preset).status, 403)

    def test_unusable_moves_reach_no_device(self):
        for body in (b"", b"<Other/>", b"{}"):
            answer, requests = self.asked("PUT", PTZ + "/1/continuous", body)
            self.assertEqual((answer.status, requests), (400, []), body)


class Search(ChannelTest):
    def search(self, members):
        answer = self.one.post("/KAVRO/ContentMgmt/search",
                               f"<CMSearchDescription>{members}</CMSearchDescription>")
        self.assertEqual((answer.status, answer.xml().tag), (200, "CMSearchResult"), answer)
        return answer.xml()

    def test_matches_have_uris_in_the_track_form(self):
        found = self.search(
            "<searchID>s1</searchID><trackIDList><trackID>202</trackID></trackIDList>"
            "<timeSpanList><timeSpan><startTime>2026-01-01T05:30:00Z</startTime>"
            "<endTime>2026-01-01T07:10:00Z</endTime></timeSpan></timeSpanList>"
            "<maxResults>2</maxResults>")
        self.assertEqual([part.tag for part in found],
                         ["searchID", "responseStatus", "responseStatusStrg", "numOfMatches",
                          "matchList"])
        self.assertEqual([part.text for part in found][:4], ["s1", "true", "more", "2"])
        item = found.find("matchList/searchMatchItem")
        self.assertEqual([part.tag for part in item], ["sourceID", "trackID", "timeSpan",
                                                       "mediaSegmentDescriptor", "metadataMatches"])
        self.assertEqual(item.findtext("mediaSegmentDescriptor/playbackURI"),
                         "rtsp://127.0.0.1:554/sim/KAVRO/Streaming/tracks/202"
                         "?starttime=20260101T050000Z&endtime=20260101T055959Z")

    def test_pages_follow_each_other(self):
        starts = []
        for position in (0, 30):
            page = self.search("<maxResults>30</maxResults>"
                               f"<searchResultPostion>{position}</searchResultPostion>")
            starts += [item.findtext("timeSpan/startTime") for item in page.find("matchList")]
        self.assertEqual((len(starts), starts), (48, sorted(starts)))


class Capabilities(ChannelTest):
    def test_smart_and_system_capabilities(self):
        for url in ("/KAVRO/Smart/capabilities", "/KAVRO/Smart/capabilities/SmartCap"):
            smart = self.get(url, "SmartCap")
            self.assertEqual([(part.tag, part.text) for part in smart][:2],
                             [("isSupportROI", "true"), ("isSupportFaceDetect", "true")])
        answer = self.one.get("/KAVRO/System/capabilities")
        self.assertEqual(answer.body, b'<?xml version="1.0" encoding="UTF-8"?>'
                         b'<DeviceCap version = "2.0"><SysCap><IOCap  version = "2.0"></IOCap>'
                         b"</SysCap></DeviceCap>")

    def test_io_ports_and_trigger(self):
        ports = self.get("/KAVRO/System/IO", "IOPortList")
        self.assertEqual([[part.text for part in port] for port in ports.find("IOInputPortList")],
                         [["1", "true", "high", "Door contact"], ["2", "true", "low"]])
        trigger = "/KAVRO/System/IO/outputs/2/trigger"
        self.assert_done(self.one.put(trigger, "<IOPortData><outputState>high</outputState>"
                                      "</IOPortData>"))
        state = self.device_get("/KAVRO/System/IO/outputs/2/status")["IOPortStatus"]
        self.assertEqual(state["ioState"], "high")
        answer, requests = self.asked("PUT", trigger,
                                      "<IOPortData><outputState>High</outputState></IOPortData>")
        self.assertEqual((answer.status, requests), (400, []))


if __name__ == "__main__":
    unittest.main()
