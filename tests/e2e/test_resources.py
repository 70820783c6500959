"""What a user gets who asks the right way: the first translated documents, with curl too."""
import subprocess
import unittest

import harness

DECLARATION = b'<?xml version="1.0" encoding="UTF-8"?>'


class Resources(harness.GatewayTest):
    def device_document(self, path, number=1):
        port = self.devices.port(number)
        with harness.client.Client(port) as device:
            return device.get(path).json()

    def assert_document(self, answer, root):
        self.assertEqual((answer.status, answer.type()), (200, "application/xml"), answer)
        self.assertTrue(answer.body.startswith(DECLARATION), answer)
        self.assertEqual(answer.xml().tag, root)

    def test_curl_reads_the_device_information(self):
        url = f"http://127.0.0.1:{self.gateway.port}/KAVRO/System/deviceInfo"
        curl = subprocess.run(["curl", "--silent", "--show-error", "--max-time", "20", "--digest",
                               "--user", f"admin:{harness.PASSWORD}", "--write-out",
                               "\n%{http_code} %{content_type}", url],
                              capture_output=True, text=True, check=True)
        document, _, result = curl.stdout.rpartition("\n")
        self.assertEqual(result, "200 application/xml")
        self.assertIn("<serialNumber>SIM000000001</serialNumber>", document)

    def test_device_information_is_the_devices_in_the_clients_order(self):
        for name, number in (("admin", 1), ("operator", 2)):
            info = self.device_document("/KAVRO/System/deviceInfo", number)["DeviceInfo"]
            answer = self.client(name).get("/KAVRO/System/deviceInfo")
            self.assert_document(answer, "DeviceInfo")
            own = {"deviceDescription": "IPCamera"}
            names = ("deviceName", "deviceID", "deviceDescription", "model", "serialNumber",
                     "macAddress", "firmwareVersion", "firmwareReleasedDate", "bootVersion",
                     "deviceType")
            self.assertEqual(answer.children(),
                             [(key, own.get(key) or info[key]) for key in names])

    def test_an_empty_address_is_made_up_anew_for_each_request(self):
        self.devices.order(deviceInfo={"macAddress": ""})
        self.addCleanup(self.devices.order, deviceInfo={"macAddress": "02:00:00:00:00:01"})
        client = self.client()
        addresses = {client.get("/KAVRO/System/deviceInfo").xml().findtext("macAddress")
                     for _ in range(2)}
        self.assertEqual(len(addresses), 2)
        for address in addresses:
            self.assertRegex(address, "^([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}$")

    def test_video_inputs(self):
        answer = self.client().get("/KAVRO/System/Video/inputs/channels")
        self.assert_document(answer, "VideoInputChannelList")
        self.assertEqual([[(part.tag, part.text) for part in channel] for channel in answer.xml()],
                         [[("id", n), ("inputPort", n), ("name", f"Camera {n}")] for n in "12"])

    def test_hard_disks_are_a_fixed_list(self):
        answer = self.client().get("/KAVRO/ContentMgmt/Storage/hdd")
        self.assert_document(answer, "{" + answer.xml().tag[1:].split("}")[0] + "}hddList")
        root = answer.xml()
        self.assertEqual((root.get("version"), root.get("size"), len(root)), ("1.0", "8", 1))
        local = [(part.tag.split("}")[1], part.text or "") for part in root[0]]
        self.assertEqual(local, [("id", "1"), ("hddName", "hdde"), ("hddPath", ""),
                                 ("hddType", "SATA"), ("status", "ok"), ("capacity", "121942"),
                                 ("freeSpace", "87296"), ("property", "RW"), ("property", "RW")])
        self.assertNotEqual(root.tag, root[0].tag)

    def test_access_protocols_are_the_gateways_own_ports(self):
        answer = self.client().get("/KAVRO/Security/adminAccesses")
        self.assert_document(answer, "AdminAccessProtocolList")
        rows = [tuple(part.text for part in protocol) for protocol in answer.xml()]
        self.assertEqual(rows, [("1", "true", "HTTP", str(self.gateway.port)),
                                ("2", "true", "RTSP", "554"), ("3", "false", "HTTPS", "443")])
        self.assertEqual([part.tag for part in answer.xml()[0]],
                         ["id", "enabled", "protocol", "portNo"])

    def test_image_capabilities_ask_the_mapped_stream(self):
        for channel, asked in (("1", "101"), ("102", "102")):
            self.devices.order(clearLog=True)
            answer = self.client().get(f"/KAVRO/Image/channels/{channel}/capabilities")
            self.assert_document(answer, "ImageChannel")
            self.assertEqual(len(answer.xml()), 0)
            self.assertEqual(self.devices.requests(), [
                ("GET", f"/KAVRO/Streaming/channels/{asked}?format=json&devIndex=1")])

    def test_an_unknown_url_is_a_json_404(self):
        for url in ("/", "/index.html", "/kavro/System/deviceInfo", "/KAVRO"):
            answer = self.client().get(url)
            self.assertEqual((answer.status, answer.type()), (404, "application/json"), url)
            self.assertEqual(answer.json()["statusCode"], 4)
            self.assertIsInstance(answer.json()["subStatusCode"], str)

    def test_a_user_of_a_missing_device_is_told_so(self):
        answer = self.client("lost").get("/KAVRO/System/deviceInfo")
        self.assertEqual((answer.status, answer.xml().tag), (404, "ResponseStatus"), answer)
        self.assertEqual([name for name, _ in answer.children()],
                         ["requestURL", "statusCode", "statusString", "subStatusCode"])
        self.assertEqual(answer.xml().findtext("requestURL"), "/KAVRO/System/deviceInfo")


if __name__ == "__main__":
    unittest.main()
