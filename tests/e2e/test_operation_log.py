"""The operation log, read with SQLite while the gateway runs and after it has stopped."""
import contextlib
import re
import sqlite3
import time
import unittest

import harness


class OperationLog(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.devices = harness.Subdevices(1)
        cls.addClassCleanup(cls.devices.stop)

    def start(self, **sections):
        gateway = harness.Gateway([{"index": "1", "url": self.devices.urls[0]}],
                                  [harness.user("admin", "1")], sections)
        self.addCleanup(gateway.stop)
        return gateway

    def client(self, gateway, **more):
        one = harness.client.Client(gateway.port, "admin", harness.PASSWORD, **more)
        self.addCleanup(one.close)
        return one

    def rows(self, gateway):
        file = gateway.database()
        if not file.exists():
            return []
        with contextlib.closing(sqlite3.connect(f"file:{file}?mode=ro", uri=True)) as database:
            return database.execute("SELECT time, iso_time, user, client_ip, operation, category, "
                                    "result FROM operation_log ORDER BY id").fetchall()

    def wait_for_rows(self, gateway, count):
        harness.wait_until(lambda: len(self.rows(gateway)) >= count, 10, f"{count} log rows")
        return self.rows(gateway)

    def test_modifying_requests_leave_rows_and_no_others(self):
        gateway = self.start()
        one = self.client(gateway)
        begin = int(time.time())
        one.get("/KAVRO/System/deviceInfo")
        one.put("/KAVRO/Security/sessionHeartbeat")
        one.put("/KAVRO/System/time?format=json", '{"Time": {"timeMode": "NTP"}}')
        one.post("/KAVRO/AccessControl/AcsEvent", "{}")
        one.delete("/KAVRO/Nothing")
        one.get("/KAVRO/Security/userCheck")
        with harness.client.Client(gateway.port) as stranger:
            self.assertEqual(stranger.put("/KAVRO/System/time", "{}").status, 401)
        self.client(gateway, source="127.0.0.2").put("/KAVRO/" + "x" * 300)
        rows = self.wait_for_rows(gateway, 5)
        self.assertEqual([row[4] for row in rows],
                         ["PUT /KAVRO/System/time?format=json",
                          "POST /KAVRO/AccessControl/AcsEvent", "DELETE /KAVRO/Nothing",
                          "GET /KAVRO/Security/userCheck", ("PUT /KAVRO/" + "x" * 300)[:256]])
        for row in rows:
            self.assertEqual((row[2], row[5], row[6]), ("admin", "Device", "Fail"))
            self.assertTrue(begin <= row[0] <= time.time(), row)
            self.assertTrue(re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d", row[1]), row)
        self.assertEqual([row[3] for row in rows], ["127.0.0.1"] * 4 + ["127.0.0.2"])

    def test_rows_survive_a_stop_and_are_kept_to_the_limit(self):
        gateway = self.start(storage={"operation_log_rows": 5})
        one = self.client(gateway)
        for number in range(8):
            one.put(f"/KAVRO/Number/{number}")
        gateway.signal(harness.signal.SIGTERM)
        gateway.wait()
        operations = [row[4] for row in self.rows(gateway)]
        self.assertEqual(operations, [f"PUT /KAVRO/Number/{number}" for number in range(3, 8)])


if __name__ == "__main__":
    unittest.main()
