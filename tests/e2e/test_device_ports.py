"""Mode 2: every device has a port of its own, and a user may be allowed on several."""
import unittest

import client
import harness

INFO = "/KAVRO/System/deviceInfo"


class DevicePorts(harness.GatewayTest):
    sections = {"kavro": {"mode": 2}}

    @classmethod
    def device_tables(cls):
        if not hasattr(cls, "ports"):
            cls.ports = harness.free_ports(2)
        return [{**table, "http_port": port, "rtsp_port": 10000 + number}
                for number, (table, port) in enumerate(zip(super().device_tables(), cls.ports))]

    @classmethod
    def user_tables(cls):
        return [harness.user("admin", "1", devices=["2"]), harness.user("operator", "2")]

    def ask(self, port, name="admin", url=INFO, **more):
        with client.Client(port, name, harness.PASSWORD) as one:
            return one.get(url, **more)

    def serial(self, port, name="admin", **more):
        return self.ask(port, name, **more).xml().findtext("serialNumber")[-1]

    def test_the_port_names_the_device(self):
        self.assertEqual([self.serial(port) for port in self.ports], ["1", "2"])

    def test_other_ports_mean_the_users_own_device(self):
        self.assertEqual(self.serial(self.gateway.port, "operator"), "2")
        for host in ("127.0.0.1", "gateway.example", "127.0.0.1:1", "127.0.0.1:99999999999"):
            self.assertEqual(self.serial(self.ports[1], headers={"Host": host}), "1", host)

    def test_a_user_needs_to_be_allowed_on_the_device(self):
        answer = self.ask(self.ports[0], "operator")
        self.assertEqual((answer.status, answer.xml().tag), (403, "ResponseStatus"), answer)
        before = self.devices.state(1)["requests"]
        json_answer = self.ask(self.ports[0], "operator", "/KAVRO/System/time?format=json")
        self.assertEqual((json_answer.status, json_answer.type()), (403, "application/json"))
        self.assertEqual(self.devices.state(1)["requests"], before)

    def test_access_protocols_are_the_devices_own_ports(self):
        answer = self.ask(self.ports[1], url="/KAVRO/Security/adminAccesses")
        rows = [tuple(part.text for part in protocol) for protocol in answer.xml()]
        self.assertEqual(rows, [("1", "true", "HTTP", str(self.ports[1])),
                                ("2", "true", "RTSP", "10001")])

    def test_a_search_names_the_devices_rtsp_port(self):
        with client.Client(self.ports[1], "admin", harness.PASSWORD) as one:
            found = one.post("/KAVRO/ContentMgmt/search", "<CMSearchDescription><maxResults>1"
                             "</maxResults></CMSearchDescription>").xml()
        uri = found.findtext("matchList/searchMatchItem/mediaSegmentDescriptor/playbackURI")
        self.assertTrue(uri.startswith("rtsp://127.0.0.1:10001/"), uri)

    def test_a_removed_device_takes_its_port_along(self):
        tables = self.device_tables()
        self.addCleanup(self.gateway.reload)
        self.addCleanup(self.gateway.write_configuration, tables, self.user_tables())
        self.gateway.write_configuration(tables[:1], self.user_tables())
        self.gateway.reload()
        harness.wait_until(lambda: self.closed(self.ports[1]), 5, "the closed port")
        self.assertEqual(self.serial(self.ports[0]), "1")

    def closed(self, port):
        try:
            client.socket.create_connection(("127.0.0.1", port), 1).close()
            return False
        except ConnectionRefusedError:
            return True


if __name__ == "__main__":
    unittest.main()
