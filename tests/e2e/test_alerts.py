"""Alert streams: what they carry, and their life from the first heartbeat to the gateway's end."""
import email
import email.policy
import json
import signal
import time
import xml.etree.ElementTree as ElementTree

import client
import harness

XML = 'application/xml; charset="UTF-8"'
JSON = 'application/json; charset="UTF-8"'


class Delivery(harness.StreamTest):
    def test_alarms_in_both_formats_reach_the_devices_own_clients_only(self):
        first, second = self.open("admin"), self.open("operator")
        self.assertEqual(first.response.headers["Content-Type"],
                         "multipart/mixed; boundary=boundary")
        self.push(1, channelID="1", eventType="motion", channelName="ofOne", devIndex="2")
        self.push(2, eventType="QRCodeEvent", channelName="ofTwo", devIndex="1", more=[1])
        kind, body = first.alarm()
        root = ElementTree.fromstring(body)
        self.assertEqual((kind, root.findtext("channelName"), root.find("devIndex")),
                         (XML, "ofOne", None))
        kind, body = second.alarm()
        alarm = json.loads(body)
        self.assertEqual((kind, alarm["channelName"], alarm["devIndex"], alarm["more"]),
                         (JSON, "ofTwo", "2", [1]), "the gateway says which device it is")

    def test_devices_may_frame_their_alarms_in_any_way(self):
        for number, framing in enumerate(({"lengths": False}, {"chunked": True}, {"split": 3},
                                          {"lengths": False, "chunked": True, "split": 7})):
            self.devices.order(alertStream=framing)
            stream = self.open()
            self.devices.order(listening=False)
            self.devices.order(listening=True)
            self.wait_for_feed()
            for turn in range(3):
                self.push(channelName=f"f{number}t{turn}")
            for turn in range(3):
                self.named(stream, f"f{number}t{turn}")
            stream.close()

    def test_a_client_that_reads_nothing_harms_no_other(self):
        lazy, stream = self.open(), self.open()
        filler = "x" * 5000
        self.devices.order(alarm={"count": 2000, "perSecond": 2000,  # 10 MB
                                  "alert": {"eventType": "storm", "channelName": filler}})
        harness.wait_until(lambda: self.devices.state()["alarmsRaised"] >= 2000, 20)
        self.push(channelName="last")
        self.named(stream, "last")
        self.assert_serving()
        lazy.close()


class MimeParts(harness.StreamTest):
    sections = {"kavro": {"mime_parts": True}}

    def test_standard_readers_find_each_part(self):
        stream = self.open()
        for name in ("first\u00e9", "second", "third", "last"):
            kind = "QRCodeEvent" if name == "second" else "motion"
            self.push(channelName=name, eventType=kind)
        body = b""
        while b"last" not in body or not body.endswith(b"Alert>"):
            body += stream.response.read1()
        head = f"Content-Type: {stream.response.headers['Content-Type']}\r\n\r\n".encode()
        parts = email.message_from_bytes(head + body, policy=email.policy.HTTP).get_payload()
        alarms = [part for part in parts if b"Heart Beat" not in part.get_payload(decode=True)]
        self.assertEqual([part.get_content_subtype() for part in alarms],
                         ["xml", "json", "xml", "xml"])
        self.assertEqual(ElementTree.fromstring(alarms[0].get_payload(decode=True))
                         .findtext("channelName"), "first\u00e9")
        self.assertEqual(json.loads(alarms[1].get_payload(decode=True))["channelName"], "second")
        # A line break belongs to the boundary behind it, and the first one has none.
        self.assertTrue(body.startswith(b"--boundary\r\n"), body[:80])
        for part in body.split(b"\r\n--boundary\r\n")[:-1]:
            fields, content = part.split(b"\r\n\r\n", 1)
            self.assertIn(b"Content-Length: %d" % len(content), fields)


class Life(harness.StreamTest):
    def test_two_clients_each_device_and_a_place_is_free_again(self):
        first, second = self.open(), self.open()
        third = client.AlertStream(self.gateway.port, "admin", harness.PASSWORD)
        self.assertEqual((third.status, third.response.read()[:6]), (403, b"<?xml "))
        third.close()
        self.open("operator")
        self.push(channelName="both")
        for stream in (first, second):
            self.named(stream, "both")
        first.close()
        self.named(self.pushed(self.open(), "again"), "again")

    def pushed(self, stream, name):
        self.push(channelName=name)
        return stream

    def test_heartbeats_in_silence_and_the_end_of_the_devices_stream(self):
        stream = self.open("operator")
        kind, body = stream.part()
        root = ElementTree.fromstring(body)
        self.assertEqual((kind, root.findtext("activePostCount"), root.findtext("eventType")),
                         (XML, "1", "heartBeat"))
        began = time.monotonic()
        self.assertIn(b"<activePostCount>2<", stream.part()[1])
        self.assertTrue(3 < time.monotonic() - began < 8, "about 5 s between heartbeats")
        stream.close()
        harness.wait_until(lambda: self.devices.state(2)["alertStreams"] == 0, 40,
                           "the end of the device's stream")

    def test_a_removed_or_rebound_user_loses_the_stream_and_no_others(self):
        for change in ([], [harness.user("operator", "1")],
                       [harness.user("operator", "2", password="another")]):
            self.reconfigure(self.device_tables(), self.user_tables())
            kept, lost = self.open("admin"), self.open("operator")
            self.reconfigure(self.device_tables(), [harness.user("admin", "1"), *change])
            began = time.monotonic()
            while lost.part():
                pass
            self.assertLess(time.monotonic() - began, 4, "a second, on a quiet machine")
            self.named(self.pushed(kept, "kept"), "kept")
            kept.close()

    def test_a_device_goes_and_comes_back_and_another_is_removed(self):
        kept, lost = self.open("admin"), self.open("operator")
        self.devices.order(listening=False)
        time.sleep(1.5)  # the time that the device is away, not a wait for anything
        self.devices.order(listening=True)
        self.wait_for_feed(seconds=5)  # the next attempt: 2 s after the last
        self.named(self.pushed(kept, "back"), "back")
        self.reconfigure(self.device_tables()[:1])
        self.named(self.pushed(kept, "kept"), "kept")
        harness.wait_until(lambda: self.devices.state(2)["alertStreams"] == 0, 20,
                           "the end of the removed device's stream")
        while lost.part():  # until the gateway ends it
            pass
        self.named(self.pushed(kept, "still"), "still")


class Stopping(harness.StreamTest):
    def test_sigterm_ends_the_streams(self):
        stream = self.open()
        self.devices.order(alarm={"count": 100000, "perSecond": 500, "alert": {}})
        self.assertIsNotNone(stream.alarm())
        self.gateway.signal(signal.SIGTERM)
        self.assertEqual(self.gateway.wait(), 0)
