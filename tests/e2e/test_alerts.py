"""Alert streams: what they carry, and their life from the first heartbeat to the gateway's end."""
import json
import signal
import threading
import time
import unittest
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


class Places(harness.StreamTest):
    def test_two_clients_each_device_and_a_place_is_free_again(self):
        first, second = self.open(), self.open()
        third = client.AlertStream(self.gateway.port, "admin", harness.PASSWORD)
        refusal = third.refusal()
        self.assertEqual((refusal.status, refusal.xml().tag), (403, "ResponseStatus"), refusal)
        third.close()
        self.open("operator")
        self.push(channelName="both")
        for stream in (first, second):
            self.named(stream, "both")
        first.close()
        again = self.open()
        self.push(channelName="again")
        self.named(again, "again")

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
        harness.wait_until(lambda: self.devices.state(2)["alertStreams"] == 0, 25,
                           "the end of the device's stream")


class Devices(harness.StreamTest):
    def test_alarms_flow_again_soon_after_a_device_is_back(self):
        stream = self.open()
        self.devices.order(listening=False)
        time.sleep(1.5)  # the time that the device is away, not a wait for anything
        self.devices.order(listening=True)
        began = time.monotonic()
        self.wait_for_feed(seconds=5)
        self.push(channelName="back")
        self.named(stream, "back")
        self.assertLess(time.monotonic() - began, 2)

    def test_a_removed_or_rebound_user_loses_the_stream_and_no_others(self):
        self.addCleanup(self.gateway.reload)
        self.addCleanup(self.gateway.write_configuration, self.device_tables(), self.user_tables())
        for change in ([], [harness.user("operator", "1")],
                       [harness.user("operator", "2", password="another")]):
            self.gateway.write_configuration(self.device_tables(), self.user_tables())
            self.gateway.reload()
            kept, lost = self.open("admin"), self.open("operator")
            self.gateway.write_configuration(self.device_tables(),
                                             [harness.user("admin", "1"), *change])
            self.gateway.reload()
            began = time.monotonic()
            while lost.part() and time.monotonic() - began < 3:
                pass
            self.assertLess(time.monotonic() - began, 1, change)
            self.push(channelName="kept")
            self.named(kept, "kept")
            kept.close()

    def test_a_removed_device_loses_its_streams_and_no_others(self):
        kept, lost = self.open("admin"), self.open("operator")
        self.gateway.write_configuration(self.device_tables()[:1], self.user_tables())
        self.gateway.reload()
        self.addCleanup(self.gateway.reload)
        self.addCleanup(self.gateway.write_configuration, self.device_tables(), self.user_tables())
        ended = []

        def read():
            while lost.part():
                pass
            ended.append(time.monotonic())

        reader = threading.Thread(target=read, daemon=True)
        reader.start()
        self.push(channelName="kept")
        self.named(kept, "kept")
        harness.wait_until(lambda: self.devices.state(2)["alertStreams"] == 0, 10,
                           "the end of the removed device's stream")
        reader.join(client.AlertStream.SILENCE)
        self.assertTrue(ended, "the client of the removed device still waits")
        self.push(channelName="still")
        self.named(kept, "still")


class Stopping(harness.StreamTest):
    def test_sigterm_ends_the_streams(self):
        stream = self.open()
        self.devices.order(alarm={"count": 100000, "perSecond": 500, "alert": {}})
        self.assertIsNotNone(stream.alarm())
        self.gateway.signal(signal.SIGTERM)
        try:
            while stream.part():
                pass
        except client.http.client.HTTPException:
            pass  # cut in the middle of a part
        self.assertEqual(self.gateway.wait(), 0)


if __name__ == "__main__":
    unittest.main()
