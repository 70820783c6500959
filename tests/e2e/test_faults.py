"""Devices that are gone, hang, lie or answer nonsense: every client is answered, others unharmed."""
import json
import time
import unittest

import harness

INFO = "/KAVRO/System/deviceInfo"
TIME = "/KAVRO/System/time"  # a passed-through resource


class DeviceFaults(harness.GatewayTest):
    def assert_error(self, answer, status, reason):
        self.assertEqual((answer.status, answer.type()), (status, "application/json"), answer)
        document = answer.json()
        self.assertEqual((document["statusCode"], document["subStatusCode"]), (2, reason))

    def test_a_switched_off_device_is_reported_and_comes_back(self):
        self.assert_serving()
        self.devices.order(listening=False)
        self.addCleanup(self.devices.order, listening=True)
        for url in (INFO, TIME):
            began = time.monotonic()
            self.assert_error(self.client().get(url), 503, "deviceUnreachable")
            self.assertLess(time.monotonic() - began, 5)
            self.assert_serving("operator")
        self.devices.order(listening=True)
        harness.wait_until(lambda: self.client().get(INFO).status == 200, 10, "the device's return")

    def test_answers_that_are_no_answers(self):
        for kind in ("refuse", "cut", "garbage"):
            with self.subTest(kind=kind):
                self.devices.fault(kind=kind)
                for url in (INFO, TIME):
                    self.assert_error(self.client().get(url), 502, "deviceReplyUnusable")
                self.devices.no_fault()
                self.assert_serving()
        before = self.gateway.descriptors()
        for kind in ("refuse", "cut", "garbage", "empty") * 15:
            self.devices.fault(kind=kind)
            with harness.client.Client(self.gateway.port, "admin", harness.PASSWORD) as one:
                one.get(INFO)
        harness.wait_until(lambda: self.gateway.descriptors() <= before + 4)

    def test_hostile_documents(self):
        deep = '{"DeviceInfo":' + "[" * 100000
        bomb = ('<!DOCTYPE d [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;">'
                '<!ENTITY c "&b;&b;&b;&b;&b;&b;&b;&b;">]><ResponseStatus>&c;</ResponseStatus>')
        nested = "<a>" * 50000
        cases = (  # the device's body, the status of a translated and of a passed-through request
            ("{}", 500, 200), ('{"DeviceInfo": {"deviceName": 5}}', 500, 200),
            (deep, 200, 200), (bomb, 200, 200), (nested, 200, 200), ("\x00\x01\x02", 200, 200),
            ("<ResponseStatus><statusCode>4</statusCode></ResponseStatus>", 403, 403))
        one = self.client()
        for body, translated, passed in cases:
            self.devices.fault(kind="reply", body=body)
            for url, status in ((INFO, translated), (TIME, passed)):
                self.assertEqual(one.get(url).status, status, body[:60])
        self.devices.no_fault()
        self.assert_serving()

    def test_ten_megabytes_of_noise_for_a_document(self):
        self.devices.fault(kind="large", bytes=10 * 1024 * 1024)
        self.assertEqual(self.client().get(INFO).status, 500)
        self.devices.fault(kind="large", bytes=40 * 1024 * 1024)
        self.assert_error(self.client().get(INFO), 502, "deviceReplyUnusable")


class DeviceLogin(harness.GatewayTest):
    device_options = ("--username", "camera", "--password", "secret")

    @classmethod
    def device_tables(cls):
        first, second = super().device_tables()
        return [{**first, "username": "camera", "password": "secret"},
                {**second, "username": "camera", "password": "wrong"}]

    def test_the_gateway_logs_in_at_its_devices(self):
        one = self.client()
        self.assertEqual(one.get(INFO).status, 200)
        self.assertEqual(one.put(TIME, json.dumps({"Time": {"timeMode": "NTP"}})).status, 200)
        self.devices.order(expireNonces=True)
        self.assertEqual(one.get(INFO).status, 200)
        self.assertEqual(self.devices.state()["wrongLogins"], 0)

    def test_a_refused_login_is_not_tried_until_the_camera_locks(self):
        one = self.client("operator")
        for _ in range(10):
            answer = one.get(INFO)
            self.assertEqual((answer.status, answer.json()["subStatusCode"]),
                             (502, "deviceLoginRefused"), answer)
        self.assertFalse(self.devices.state(2)["locked"])


if __name__ == "__main__":
    unittest.main()
