"""Everything that is not translated goes to the device and back as it is; face pictures are stored
by the gateway and fetched from it."""
import json
import os
import pathlib
import re
import subprocess
import tempfile

import client
import harness

FACE_RECORD = "/KAVRO/Intelligent/FDLib/FaceDataRecord?format=json"
FACE_SET_UP = "/KAVRO/Intelligent/FDLib/FDSetUp?format=json"
JPEG = b"\xff\xd8\xff\xe0" + bytes(range(256)) * 800 + b"\r\n--x\r\n\xff\xd9"
PNG = b"\x89PNG\r\n\x1a\n" + os.urandom(5000)


def multipart(parts):
    """A form of (content type, bytes) parts."""
    body = b"preamble\r\n"
    for kind, content in parts:
        body += b"--form\r\nContent-Type: " + kind.encode() + b"\r\n\r\n" + content + b"\r\n"
    return body + b"--form--\r\n", {"Content-Type": 'multipart/form-data; boundary="form"'}


def description(**members):
    return "application/json", json.dumps(members).encode()


class PassThroughTest(harness.GatewayTest):
    def setUp(self):
        self.devices.order(clearLog=True)

    def arrived(self):
        """The one request that the device got."""
        entry, = self.devices.state()["log"]
        return entry

    def picture_port(self):
        return self.gateway.sections["network"]["picture_port"]

    def upload(self, method, url, *parts):
        body, headers = multipart(parts)
        return self.client().request(method, url, body, headers)

    def fetch(self, url, method="GET"):
        found = re.fullmatch(r"http://127\.0\.0\.1:(\d+)(/NovGatewayStorage/[0-9a-f]{32}\.\w{3})",
                             url)
        self.assertTrue(found, url)
        self.assertEqual(int(found.group(1)), self.picture_port())
        answers = []
        for port in (self.picture_port(), self.gateway.port):
            with client.Client(port) as anybody:
                answers.append(anybody.request(method, found.group(2)))
        first, second = answers
        self.assertEqual((first.status, first.body, first.type()),
                         (second.status, second.body, second.type()))
        return first

    def stored_by_device(self, name):
        """The face record of this name, once the device has fetched its picture."""
        def look():
            with client.Client(self.devices.port()) as device:
                faces = device.get("/KAVRO/Intelligent/FDLib/FaceDataRecord").json()
                for entry in faces["FaceRecordList"]:
                    face = entry["FaceRecord"]
                    if face["name"] == name and face["pictureState"] == "stored":
                        picture = device.get("/KAVRO/Intelligent/FDLib/FaceDataRecord/"
                                             f"{face['id']}/picture")
                        return face["record"], picture
        return harness.wait_until(look, what=f"the picture of {name}")


class Unchanged(PassThroughTest):
    def test_any_method_body_and_query(self):
        for method, url, sent in (("GET", "/KAVRO/System/time", b""),
                                  ("PUT", "/KAVRO/Door?x=%26", b"<Door/>"),
                                  ("POST", "/KAVRO/Any?format=json", b'{"a": {}}'),
                                  ("PATCH", "/KAVRO/Door", b"\x00\xff"),
                                  ("DELETE", "/KAVRO/Door//1/", b""),
                                  ("PUT", "/KAVRO/Import", b"x" * (9 * 1024 * 1024))):
            self.devices.order(clearLog=True)
            self.client().request(method, url, sent)
            entry = self.arrived()
            self.assertEqual(
                (entry["method"], entry["url"], entry["bodyBytes"]),
                (method, url + ("&" if "?" in url else "?") + "devIndex=1", len(sent)))

    def test_a_snapshot_and_ten_megabytes_are_not_touched(self):
        url = "/KAVRO/Streaming/channels/101/picture"
        with client.Client(self.devices.port()) as device:
            self.assertEqual(self.client().get(url).body, device.get(url).body)
        self.devices.fault(kind="large", bytes=10 * 1024 * 1024)
        self.assertEqual(len(self.client().get("/KAVRO/Export").body), 10 * 1024 * 1024)

    def test_no_client_reaches_another_users_device(self):
        before = self.devices.state(2)["requests"]
        for url in ("/KAVRO/System/time?devIndex=2", "/KAVRO/System/time?devIndex=1&devIndex=2",
                    "/KAVRO/System/time?x=1&devIndex=2#", "/KAVRO/System/time?%64evIndex=2",
                    "/KAVRO/System/deviceInfo?devIndex=2&"):
            self.client().get(url)
        self.assertEqual(self.devices.state(2)["requests"], before)


class FacePictures(PassThroughTest):
    def test_a_fault_is_answered_once_and_the_request_still_goes_on(self):
        one = self.client()
        body, headers = multipart([description(FaceInfo={"employeeNo": "1"}),
                                   ("image/gif", b"GIF89a")])
        answer = one.post(FACE_RECORD, body, headers=headers)
        self.assertEqual((answer.status, answer.xml().findtext("statusCode")), (415, "3"))
        # The connection is in step: no second answer is on it.
        self.assertEqual(one.get("/KAVRO/System/deviceInfo").status, 200)
        harness.wait_until(lambda: ("POST", FACE_RECORD + "&devIndex=1") in self.devices.requests())

    def test_only_pictures_are_served_without_a_login(self):
        with client.Client(self.picture_port()) as anybody:
            for url in ("/NovGatewayStorage/..%2fgateway.toml", "/KAVRO/System/deviceInfo",
                        "/NovGatewayStorage/" + "0" * 32 + ".jpg"):
                self.assertEqual(anybody.get(url).status, 404, url)

    def test_curl_posts_a_face_record(self):
        with tempfile.TemporaryDirectory() as folder:
            picture = pathlib.Path(folder) / "face.jpg"
            picture.write_bytes(JPEG)
            record = '{"FaceInfo": {"employeeNo": "curl", "note": "\\"}{"}}'
            curl = subprocess.run(
                ["curl", "--silent", "--show-error", "--max-time", "20", "--digest",
                 "--user", f"admin:{harness.PASSWORD}", "--write-out", "\n%{http_code}",
                 "-F", f"FaceDataRecord={record};type=application/json",
                 "-F", f"img=@{picture}", f"http://127.0.0.1:{self.gateway.port}{FACE_RECORD}"],
                capture_output=True, text=True, check=True)
        document, _, status = curl.stdout.rpartition("\n")
        self.assertEqual((status, json.loads(document)["statusCode"]), ("200", 1), curl.stdout)
        record, fetched = self.stored_by_device("curl")
        self.assertEqual((record["employeeNo"], record["note"]), ("curl", '"}{'))
        self.assertEqual((fetched.body, fetched.type()), (JPEG, "image/jpeg"))
        mine = self.fetch(record["faceURL"])
        self.assertEqual((mine.status, mine.type(), mine.body), (200, "image/jpeg", JPEG))
        self.assertEqual(mine.headers["Cache-Control"], "private")
        head = self.fetch(record["faceURL"], "HEAD")
        self.assertEqual((head.status, head.headers["Content-Length"], head.body),
                         (200, str(len(JPEG)), b""))


class StoreOfTwo(PassThroughTest):
    sections = {"pictures": {"max_count": 2, "full": "refuse"}}

    def add(self, name):
        return self.upload("POST", FACE_RECORD, description(FaceInfo={"employeeNo": name}),
                           ("image/jpeg", JPEG + name.encode()))

    def test_full_restart_and_leftovers(self):
        for name in ("first", "second"):
            self.assertEqual(self.add(name).status, 200)
        urls = [self.stored_by_device(name)[0]["faceURL"] for name in ("first", "second")]
        refused = self.add("third")
        self.assertEqual((refused.status, refused.xml().findtext("subStatusCode")),
                         (503, "pictureStoreFull"))

        half = self.gateway.folder / "data" / "pictures" / ("0" * 32 + ".jpg.part")
        half.write_bytes(b"half")
        self.gateway.child.kill()
        self.gateway.wait()
        self.gateway.start()
        self.assertFalse(half.exists())
        for name, url in zip(("first", "second"), urls):
            self.assertEqual(self.fetch(url).body, JPEG + name.encode())

        self.gateway.sections["pictures"]["full"] = "drop_oldest"
        self.gateway.write_configuration(self.device_tables(), self.user_tables())
        self.gateway.reload()
        self.assertEqual(self.add("third").status, 200)
        self.assertEqual(self.fetch(urls[0]).status, 404)
        self.assertEqual(self.fetch(urls[1]).status, 200)
        self.assertEqual(self.stored_by_device("third")[1].body, JPEG + b"third")


class PictureStoreUnavailable(PassThroughTest):
    def test_a_port_that_another_process_has(self):
        with harness.socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            self.gateway.sections["network"]["picture_port"] = taken.getsockname()[1]
            self.gateway.write_configuration(self.device_tables(), self.user_tables())
            self.gateway.reload()
            answer = self.upload("PUT", FACE_SET_UP, description(FPID="1"), ("image/png", PNG))
        self.assertEqual((answer.status, answer.xml().findtext("subStatusCode")),
                         (503, "pictureStoreNotAvailable"))


if __name__ == "__main__":
    harness.unittest.main()
