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
BMP = b"BM" + os.urandom(300)


def multipart(parts, boundary="qn-boundary", closing="--\r\n"):
    """A form of (content type, bytes) parts; the type may be missing."""
    body = b"preamble\r\n"
    for content_type, content in parts:
        head = f'--{boundary}\r\nContent-Disposition: form-data; name="part"\r\n'
        if content_type:
            head += f"Content-Type: {content_type}\r\n"
        body += head.encode() + b"\r\n" + content + b"\r\n"
    body += f"--{boundary}{closing}".encode()
    return body, {"Content-Type": f'multipart/form-data; boundary="{boundary}"'}


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

    def upload(self, method, url, *parts, name="admin"):
        body, headers = multipart(parts)
        return self.client(name).request(method, url, body, headers)

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


class Replies(PassThroughTest):
    def test_each_kind_of_reply(self):
        cases = (('{"a": [1, 2.50, "\\u00e4"]}', 200, "application/json"),
                 ("<ResponseStatus><statusCode>4</statusCode></ResponseStatus>", 403,
                  "application/xml"),
                 ("<ResponseStatus><errorCode>1</errorCode><statusCode>2</statusCode>"
                  "</ResponseStatus>", 503, "application/xml"),
                 ("<other><statusCode>4</statusCode></other>", 200, "application/xml"),
                 ("plain words", 200, "application/xml"), ("", 200, "application/xml"))
        for body, status, content_type in cases:
            self.devices.fault(kind="reply", body=body)
            answer = self.client().get("/KAVRO/Any/Thing")
            self.assertEqual((answer.status, answer.type(), answer.body),
                             (status, content_type, body.encode()), body)

    def test_a_snapshot_and_ten_megabytes_are_not_touched(self):
        with client.Client(self.devices.port()) as device:
            picture = device.get("/KAVRO/Streaming/channels/101/picture").body
        self.assertGreater(len(picture), 1000)
        answer = self.client().get("/KAVRO/Streaming/channels/101/picture")
        self.assertEqual((answer.status, answer.body), (200, picture))
        self.devices.fault(kind="large", bytes=10 * 1024 * 1024)
        answer = self.client().get("/KAVRO/Export")
        self.assertEqual((answer.status, len(answer.body)), (200, 10 * 1024 * 1024))

    def test_any_method_body_and_query(self):
        for method, url, sent in (("PUT", "/KAVRO/Door?x=%26", b"<Door/>"),
                                  ("PATCH", "/KAVRO/Door", b"\x00\xff"),
                                  ("DELETE", "/KAVRO/Door//1/", b""),
                                  ("OPTIONS", "/KAVRO/Door?", b"")):
            self.devices.order(clearLog=True)
            self.client().request(method, url, sent)
            entry = self.arrived()
            glue = "&" if "?" in url else "?"
            self.assertEqual((entry["method"], entry["url"], entry["bodyBytes"]),
                             (method, f"{url}{glue}devIndex=1", len(sent)))


class Requests(PassThroughTest):
    def test_documents_arrive_unchanged_with_the_device_index(self):
        body = '{"Time": {"timeZone": "UTC-1"}}'
        for method, url, sent, arrived in (
                ("GET", "/KAVRO/System/time", "", "/KAVRO/System/time?devIndex=1"),
                ("PUT", "/KAVRO/System/time?format=json", body,
                 "/KAVRO/System/time?format=json&devIndex=1"),
                ("POST", "/KAVRO/AccessControl/AcsEvent?a=%20b", '{"AcsEventCond": {}}',
                 "/KAVRO/AccessControl/AcsEvent?a=%20b&devIndex=1")):
            self.devices.order(clearLog=True)
            answer = self.client().request(method, url, sent)
            self.assertEqual((answer.status, answer.type()), (200, "application/json"), answer)
            entry = self.arrived()
            self.assertEqual((entry["method"], entry["url"], entry["body"]), (method, arrived, sent))

    def test_the_devices_json_codes_decide_the_status(self):
        for document, status in (
                ({"statusCode": 4}, 403), ({"statusCode": 2}, 503), ({"statusCode": 1}, 200),
                ({"errorCode": 0x40000006, "statusCode": 1}, 404),
                ({"errorCode": 1, "statusCode": 3}, 500), ({"errorCode": "no"}, 200), ([1], 200)):
            self.devices.fault(kind="reply", body=json.dumps(document))
            answer = self.client().get("/KAVRO/Anything")
            self.assertEqual((answer.status, answer.json()), (status, document))

    def test_no_client_reaches_another_users_device(self):
        before = self.devices.state(2)["requests"]
        for url in ("/KAVRO/System/time?devIndex=2", "/KAVRO/System/time?devIndex=1&devIndex=2",
                    "/KAVRO/System/time?x=1&devIndex=2#", "/KAVRO/System/time?%64evIndex=2",
                    "/KAVRO/System/deviceInfo?devIndex=2&"):
            self.client().get(url)
        self.assertEqual(self.devices.state(2)["requests"], before)

    def test_nine_megabytes_arrive(self):
        self.client().put("/KAVRO/Import", b"x" * (9 * 1024 * 1024))
        self.assertEqual(self.devices.state()["log"][-1]["bodyBytes"], 9 * 1024 * 1024)


class FacePictures(PassThroughTest):
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

    def test_flat_record_and_set_up_with_the_picture_first(self):
        flat = description(faceLibType="blackFD", FDID="1", name="flat", bornTime="2000-01-01")
        self.assertEqual(self.upload("POST", FACE_RECORD, ("image/png", PNG), flat).status, 200)
        record, fetched = self.stored_by_device("flat")
        self.assertEqual((fetched.body, fetched.type()), (PNG, "image/png"))
        self.assertEqual(self.fetch(record["faceURL"]).type(), "image/png")
        answer = self.upload("PUT", FACE_SET_UP, (None, b'{"FPID": "set-up"}'), (None, BMP))
        self.assertEqual(answer.status, 200)
        record, fetched = self.stored_by_device("set-up")
        self.assertEqual((fetched.body, self.fetch(record["faceURL"]).type()), (BMP, "image/bmp"))

    def test_a_record_with_a_url_needs_no_picture(self):
        body = b'{"FPID": "elsewhere",  "faceURL": "http://127.0.0.1:1/x"}'
        self.assertEqual(self.client().put(FACE_SET_UP, body).status, 200)
        self.assertEqual(self.arrived()["body"], body.decode())

    def test_faults_are_answered_once_and_the_request_still_goes_on(self):
        info = {"FaceInfo": {"employeeNo": "fault"}}
        no_picture, wrong_type, bad_body = (400, 6), (415, 3), (400, 5)
        gif = ("image/gif", b"GIF89a")
        cases = ((("POST", FACE_RECORD), (description(**info), gif), wrong_type),
                 (("POST", FACE_RECORD), (description(**info),), no_picture),
                 (("POST", FACE_RECORD), (description(**info), (None, b"undefined")), no_picture),
                 (("POST", FACE_RECORD), (description(FaceInfo={}), ("image/png", PNG)), bad_body),
                 (("PUT", FACE_SET_UP), (description(faceURL=1, FPID="1"),), bad_body),
                 (("PUT", FACE_SET_UP), (("application/json", b"[]"), gif), bad_body))
        for request, parts, (status, code) in cases:
            self.devices.order(clearLog=True)
            with self.subTest(request=request, parts=parts):
                mine = self.client()
                body, headers = multipart(parts)
                answer = mine.request(*request, body, headers)
                self.assertEqual((answer.status, answer.type()), (status, "application/json"))
                self.assertEqual(answer.xml().findtext("statusCode"), str(code))
                # The connection is in step: no second answer is on it.
                self.assertEqual(mine.get("/KAVRO/System/deviceInfo").status, 200)
                forwarded = (request[0], request[1] + "&devIndex=1")
                harness.wait_until(lambda: forwarded in self.devices.requests(),
                                   what="the forwarded request")

    def test_a_form_without_its_end_is_refused_and_not_forwarded(self):
        body, headers = multipart([description(FPID="1"), ("image/png", PNG)], closing="\r\n")
        self.assertEqual(self.client().put(FACE_SET_UP, body, headers=headers).status, 400)
        self.assertEqual(self.devices.requests(), [])

    def test_only_pictures_are_served_without_a_login(self):
        names = ("", "x", "0" * 32 + ".jpg", "../../gateway.toml", "..%2fgateway.toml",
                 "%2e%2e/operation_log.db", "a/" + "0" * 32 + ".jpg", "0" * 32 + ".jpg.part")
        for port in (self.picture_port(), self.gateway.port):
            with client.Client(port) as anybody:
                for name in names:
                    answer = anybody.get(f"/NovGatewayStorage/{name}")
                    self.assertEqual((answer.status, answer.type()), (404, "application/json"),
                                     name)
        with client.Client(self.picture_port()) as anybody:
            for method, url in (("GET", "/"), ("GET", "/KAVRO/System/deviceInfo"),
                                ("GET", "/NovGatewayStorage"), ("POST", FACE_RECORD)):
                self.assertEqual(anybody.request(method, url).status, 404, url)


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
