"""What alert streams carry: alarms in both formats, from devices that frame them in any way."""
import json
import re
import threading
import time
import unittest
import xml.etree.ElementTree as ElementTree

import harness

XML = 'application/xml; charset="UTF-8"'
JSON = 'application/json; charset="UTF-8"'


class Delivery(harness.StreamTest):
    def test_the_stream_is_multipart_and_stays_open(self):
        stream = self.open()
        self.assertEqual(stream.response.headers["Content-Type"],
                         "multipart/mixed; boundary=boundary")
        self.assertIsNone(stream.response.headers["Content-Length"])

    def test_an_alarm_becomes_xml_with_the_known_members_in_order(self):
        stream = self.open()
        self.push(channelID="1", dateTime="2026-01-01T00:00:00Z", activePostCount=7,
                  eventType="motion", eventDescription="Motion", inputIOPortID=3,
                  channelName="xml", deviceID="d", devIndex="2", secret="no",
                  AudioExceptionDetection={"alarmType": "rise", "audioDecibel": 70})
        kind, body = self.named(stream, "xml")
        self.assertEqual(kind, XML)
        root = ElementTree.fromstring(body)
        self.assertEqual((root.tag, [(part.tag, part.text) for part in root][:9]), (
            "EventNotificationAlert", [
                ("channelID", "1"), ("dateTime", "2026-01-01T00:00:00Z"), ("activePostCount", "7"),
                ("eventType", "motion"), ("eventState", "active"), ("eventDescription", "Motion"),
                ("inputIOPortID", "3"), ("channelName", "xml"), ("deviceID", "d")]))
        self.assertEqual([part.tag for part in root][9:], ["AudioExceptionDetection"])

    def test_some_kinds_go_out_as_the_inner_json_object(self):
        stream = self.open()
        self.push(eventType="AccessControllerEvent", channelName="json", devIndex="2", more=[1])
        kind, body = self.named(stream, "json")
        alarm = json.loads(body)
        self.assertEqual((kind, body[-1:]), (JSON, b"\n"))
        self.assertEqual((alarm["devIndex"], alarm["more"]), ("1", [1]),
                         "the gateway says which device it is")

    def test_an_alarm_reaches_the_devices_own_clients_only(self):
        first, second = self.open("admin"), self.open("operator")
        self.push(1, eventType="QRCodeEvent", channelName="ofOne", devIndex="2")
        self.push(2, eventType="QRCodeEvent", channelName="ofTwo", devIndex="1")
        self.assertIn(b"ofOne", first.alarm()[1])
        self.assertIn(b"ofTwo", second.alarm()[1])

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

    def test_nonsense_from_a_device_is_skipped(self):
        stream = self.open()
        for raw in ("", "no JSON", "[]", "null", '{"EventNotificationAlert": []}',
                    '{"EventNotificationAlert": {"activePostCount": "x", "eventType": "motion"}}',
                    '{"EventNotificationAlert": {"DetectionRegionList": [[1]], "eventType": "m"}}',
                    "[" * 20000, '{"EventNotificationAlert": {"eventType": "\\ud800"}}'):
            self.devices.order(alarm={"raw": raw or " ", "count": 1})
        self.push(channelName="after")
        self.named(stream, "after")

    def test_a_storm_reaches_the_reader_and_delays_no_other_device(self):
        stormy, calm, count = self.open("admin"), self.open("operator"), 2000
        seen = set()

        def read():
            while len(seen) < count:
                body = stormy.alarm()[1]
                if b"<eventType>storm<" in body:
                    seen.add(re.search(rb"<activePostCount>(\d+)<", body).group(1))

        reader = threading.Thread(target=read, daemon=True)
        reader.start()
        self.devices.order(alarm={"count": count, "perSecond": 1000,
                                  "alert": {"eventType": "storm"}})
        slowest = 0
        for turn in range(5):
            began = time.monotonic()
            self.push(2, channelName=f"calm{turn}")
            self.named(calm, f"calm{turn}")
            slowest = max(slowest, time.monotonic() - began)
        reader.join(30)
        self.assertEqual(len(seen), count)
        self.assertLess(slowest, 2)

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


if __name__ == "__main__":
    unittest.main()
