"""scripts/check-gateway: what it says of a gateway as it should be, of one that is not, and of what
is none."""
import os
import pathlib
import re
import socket
import socketserver
import subprocess
import sys
import threading
import xml.etree.ElementTree as ElementTree

import harness
import test_tls

SCRIPT = pathlib.Path(__file__).parents[2] / "scripts" / "check-gateway"
# What a wrong gateway says in the place of something, and what is said of it; of two replacements
# that meet in one check the first one is told.
FAULTS = [
    (b'stale="TRUE"', b'stale="NONE"', "a nonce is good for.*", "does not say stale"),
    (b'rspauth="', b'rspauth="0', "the password opens.*", "rspauth: expected"),
    (b"<retryLoginTime>", b"<retryLoginTimo>", "a wrong password is counted.*", "no XML"),
    (b"<deviceName>", b"<deviceNane>", "device information is XML", "no XML"),
    (b"<statusCode>1<", b"<statusCode>2<", "a channel can be put back.*", "expected .'1'"),
    (b"resourceNotFound", b"resourceNotFoond", "an unknown URL is 404", "resourceNotFound"),
    (b'"errorCode":16106129', b'"errorCode":26106129', "a (method|request) that is none.*",
     "statusCode and subStatusCode"),
    (b"badRequestContent", b"badRequestContant", "a document that cannot be read.*", "badRequest"),
    (b"HTTP/1.1 431", b"HTTP/1.1 400", "a head of 128 KiB.*", "431"),
    (b"HTTP/1.1 413", b"HTTP/1.1 400", "a body that is announced.*", "413"),
    (b"X-Request-Id: check", b"X-Request-Id: chock", "a request's X-Request-Id.*", "expected"),
    (b"--boundary", b"--boundory", "the stream never ends.*", "the line before a part"),
]


class WrongGateway(socketserver.ThreadingTCPServer):
    """Hands on what a real one says, with the faults."""

    daemon_threads = allow_reuse_address = True

    def __init__(self, port):
        self.port = port
        super().__init__(("127.0.0.1", 0), Conversation)


class Conversation(socketserver.BaseRequestHandler):
    def handle(self):
        with socket.create_connection(("127.0.0.1", self.server.port)) as behind:
            back = threading.Thread(target=self.copy, args=(behind, self.request, FAULTS))
            back.start()
            self.copy(self.request, behind, [])
            back.join()

    @staticmethod
    def copy(source, sink, faults):
        try:
            while data := source.recv(1 << 20):
                for right, wrong, *_ in faults:
                    data = data.replace(right, wrong)
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # one of them has gone


class Checked:
    def check(self, port, *options, password=harness.PASSWORD, scheme="http"):
        """Exit status, what was printed, and the JUnit cases by their outcome."""
        report = self.gateway.folder / "report.xml"
        report.unlink(missing_ok=True)
        environment = {**os.environ, "KAVRO_PASSWORD": password}
        done = subprocess.run([sys.executable, SCRIPT, f"{scheme}://127.0.0.1:{port}", "--junit",
                               report, *options], env=environment, capture_output=True, text=True, timeout=100)
        self.assertNotIn("Traceback", done.stderr)
        self.assertNotIn(harness.PASSWORD, done.stdout + done.stderr)
        cases = {"ok": [], "failure": [], "skipped": []}
        for case in ElementTree.parse(report).getroot() if report.exists() else []:
            outcome = case[0] if len(case) else None
            cases["ok" if outcome is None else outcome.tag].append(
                (case.get("name"), "" if outcome is None else outcome.get("message")))
        return done.returncode, done.stdout + done.stderr, cases


class CheckGateway(Checked, harness.StreamTest):
    def test_a_gateway_as_it_should_be(self):
        before = self.devices.state(1)["requests"]
        status, text, cases = self.check(self.gateway.port)
        self.assertEqual((status, cases["failure"] + cases["skipped"]), (0, []), text)
        self.assertEqual(len(cases["ok"]), text.count("  ok  "))
        self.assertGreater(len(cases["ok"]), 15)
        puts = [url for method, url in self.devices.requests() if method == "PUT"]
        self.assertEqual((len(puts), self.devices.state(1)["requests"] > before), (1, True), puts)

    def test_one_that_is_wrong(self):
        with WrongGateway(self.gateway.port) as wrong:
            threading.Thread(target=wrong.serve_forever, daemon=True).start()
            status, text, cases = self.check(wrong.server_address[1])
            wrong.shutdown()
        self.assertEqual((status, cases["skipped"]), (1, []), text)
        for *_, name, message in FAULTS:
            found = [said for sentence, said in cases["failure"] if re.fullmatch(name, sentence)]
            self.assertTrue(found and all(re.search(message, said) for said in found),
                            f"{name}: {found}\n{text}")

    def test_what_is_no_gateway(self):
        class Server(socketserver.BaseRequestHandler):
            def handle(self):
                self.request.recv(65536)
                self.request.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")

        with socketserver.ThreadingTCPServer(("127.0.0.1", 0), Server) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            status, text, cases = self.check(server.server_address[1])
            server.shutdown()
        self.assertEqual((status, cases["ok"]), (1, []), text)
        status, text, cases = self.check(*harness.free_ports(1))
        self.assertEqual((status, cases["ok"]), (1, []), text)
        self.assertIn("no connection to http://127.0.0.1", text)

    def test_a_wrong_password_is_tried_once(self):
        status, text, cases = self.check(self.gateway.port, "--user", "operator", password="wrong")
        self.assertEqual(status, 1)
        self.assertIn("the user or the password is wrong", text)
        second = self.client("operator", "wrong").get("/KAVRO/System/deviceInfo").xml()
        self.assertEqual(second.findtext("retryLoginTime"), "3")
        self.assert_serving("operator")
        self.assertTrue(all("no login" in said for _, said in cases["skipped"]), cases)
        secret = self.gateway.folder / "password"
        secret.write_text(harness.PASSWORD + "\n")
        with self.subTest("others have the streams"):
            self.open(), self.open()
            status, text, cases = self.check(self.gateway.port, "--password-file", secret)
            self.assertEqual((status, len(cases["skipped"]), cases["failure"]), (1, 1, []), text)
        for options, why in ((["--password-file", "/nonexistent"], "No such file"),
                             (["--user"], "expected one argument")):
            status, text, _ = self.check(self.gateway.port, *options, password="")
            self.assertEqual(status, 2)
            self.assertIn(why, text)


class CheckSecureGateway(Checked, test_tls.TlsTest):
    def test_it_believes_nobody_without_a_certificate(self):
        authority = ["--cacert", str(self.authority.certificate)]
        for options, expected in ((authority, 0), ([], 1)):
            status, text, _ = self.check(self.secure_port, *options, scheme="https")
            self.assertEqual(status, expected, text)
        self.assertIn("certificate verify failed", text)
