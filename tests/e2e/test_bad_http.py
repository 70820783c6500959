"""Clients that send nonsense, too much, too slowly or nothing at all."""
import socket
import threading
import time
import unittest

import client
import harness

HOST = b"Host: 127.0.0.1\r\n"
GET = b"GET /none HTTP/1.1\r\n"
POST = b"POST /none HTTP/1.1\r\n" + HOST


class BadRequests(harness.GatewayTest):
    sections = {"http": {"body_bytes": 1024 * 1024, "head_seconds": 2, "body_seconds": 2}}

    # What is sent, and the status of the one answer before the connection ends.
    malformed = (
        (b"GARBAGE\r\n\r\n", 400),
        (b"GET\r\n\r\n", 400),
        (b"GET /none\r\n\r\n", 400),
        (b"GET /none HTTP/9.9\r\n" + HOST + b"\r\n", 400),
        (b"GET none HTTP/1.1\r\n" + HOST + b"\r\n", 400),
        (b"GET /no ne HTTP/1.1\r\n" + HOST + b"\r\n", 400),
        (b"GET /\x00 HTTP/1.1\r\n" + HOST + b"\r\n", 400),
        (b"G\x80T /none HTTP/1.1\r\n" + HOST + b"\r\n", 400),
        (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\x00" * 40, 400),  # TLS
        (GET + b"\r\n", 400),  # no Host
        (GET + HOST + HOST + b"\r\n", 400),
        (GET + HOST + b"No colon here\r\n\r\n", 400),
        (GET + HOST + b": no name\r\n\r\n", 400),
        (GET + HOST + b"Blank : before colon\r\n\r\n", 400),
        (GET + HOST + b"Folded: a\r\n b\r\n\r\n", 400),
        (GET + HOST + b"Nul: a\x00b\r\n\r\n", 400),
        (GET.replace(b"\r\n", b"\n") + HOST + b"\r\n", 400),
        (POST + b"Content-Length: x\r\n\r\n", 400),
        (POST + b"Content-Length: -1\r\n\r\n", 400),
        (POST + b"Content-Length: 99999999999999999999999\r\n\r\n", 400),
        (POST + b"Content-Length: 1\r\nContent-Length: 2\r\n\r\nab", 400),
        (POST + b"Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400),
        (POST + b"Transfer-Encoding: gzip\r\n\r\n", 400),
        (POST + b"Transfer-Encoding: chunked\r\n\r\nzz\r\n", 400),
        (POST + b"Transfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\n", 400),
        (POST + b"Transfer-Encoding: chunked\r\n\r\n3\r\nabcdef\r\n0\r\n\r\n", 400),
        (b"BREW /none HTTP/1.1\r\n" + HOST + b"\r\n", 501),
        (b"GET /" + b"a" * 20000 + b" HTTP/1.1\r\n" + HOST + b"\r\n", 431),
        (GET + HOST + b"Big: " + b"a" * 20000 + b"\r\n\r\n", 431),
        (GET + HOST + b"A: b\r\n" * 5000 + b"\r\n", 431),
        (GET + HOST + b"Endless: " + b"a" * 100000, 431),
        (POST + b"Content-Length: 20000000\r\n\r\n", 413),
        (POST + b"Transfer-Encoding: chunked\r\n\r\n200001\r\n", 413),
        (POST + b"Transfer-Encoding: chunked\r\n\r\n"
         + (b"10000\r\n" + b"x" * 65536 + b"\r\n") * 20 + b"0\r\n\r\n", 413),
    )

    def test_malformed_requests_are_refused_and_the_connection_ends(self):
        for sent, status in self.malformed:
            with self.subTest(sent=sent[:90], size=len(sent)):
                received = client.send_raw(self.gateway.port, sent)
                self.assertIsNotNone(received, "the connection stayed open")
                self.assertEqual(client.status_of(received), status, received[:200])
                self.assertEqual(received.count(b"HTTP/1.1 "), 1, received[:400])
        self.assert_serving()

    def test_incomplete_requests_end_with_the_client(self):
        for sent in (b"", b"GE", GET, GET + HOST, POST + b"Content-Length: 10\r\n\r\nabc",
                     POST + b"Transfer-Encoding: chunked\r\n\r\n5\r\nab"):
            self.assertIsNotNone(client.send_raw(self.gateway.port, sent), sent)

    def test_what_is_unusual_and_right_is_served(self):
        end = b"Connection: close\r\n\r\n"
        for sent in (b"\r\n\r\n" + GET + HOST + end,
                     b"GET http://127.0.0.1/none HTTP/1.1\r\n" + HOST + end,
                     b"GET /none HTTP/1.0\r\n\r\n",
                     b"DELETE /none HTTP/1.1\r\nhOsT:x\r\n" + end,
                     POST + b"Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
                     b"3;ext=1\r\nabc\r\n0\r\nTrailer: x\r\n\r\n"):
            received = client.send_raw(self.gateway.port, sent)
            self.assertEqual(client.status_of(received or b""), 404, sent)

    def test_requests_in_one_packet_are_answered_in_order(self):
        sent = (GET + HOST + b"\r\n") * 3 + b"GET / HTTP/1.1\r\n" + HOST + b"Connection: close\r\n\r\n"
        received = client.send_raw(self.gateway.port, sent)
        self.assertEqual(received.count(b"HTTP/1.1 404 "), 4)

    def test_a_request_hidden_in_a_body_is_not_served(self):
        before = self.devices.state()["requests"]
        hidden = b"GET /KAVRO/System/time HTTP/1.1\r\n" + HOST + b"\r\n"
        received = client.send_raw(self.gateway.port, POST + b"Connection: close\r\nContent-Length: "
                                   + str(len(hidden)).encode() + b"\r\n\r\n" + hidden)
        self.assertEqual(received.count(b"HTTP/1.1 "), 1)
        self.assertEqual(self.devices.state()["requests"], before)

    def dribble(self, first, seconds):
        """Sends one byte every 100 ms until the gateway has had enough; what it said, and when."""
        began = time.monotonic()
        with socket.create_connection(("127.0.0.1", self.gateway.port), 10) as connection:
            connection.sendall(first)
            connection.settimeout(0.1)
            received = b""
            while time.monotonic() - began < seconds:
                try:
                    piece = connection.recv(4096)
                    if not piece:
                        return received, time.monotonic() - began
                    received += piece
                except TimeoutError:
                    connection.sendall(b"a")
                except ConnectionError:
                    return received, time.monotonic() - began
        return received, None

    def test_slow_senders_are_cut_and_hold_nobody_up(self):
        results = {}

        def slow(name, first):
            try:
                results[name] = self.dribble(first, 12)
            except ConnectionError:
                results[name] = (b"", 0)

        senders = [threading.Thread(target=slow, args=case) for case in (
            ("head", GET), ("body", POST + b"Content-Length: 1000\r\n\r\n"))]
        for sender in senders:
            sender.start()
        while any(sender.is_alive() for sender in senders):
            began = time.monotonic()
            self.assert_serving()
            self.assertLess(time.monotonic() - began, 3)
            time.sleep(0.1)
        for name, (received, seconds) in results.items():
            self.assertIsNotNone(seconds, f"the slow {name} went on")
            self.assertIn(client.status_of(received), (408, None), received)
            self.assertLess(seconds, 8)


class ManyConnections(harness.GatewayTest):
    sections = {"http": {"connections": 3000, "connections_per_address": 1100}}

    def test_a_thousand_idle_connections_hold_nobody_up(self):
        harness.allow_many_descriptors()
        idle = []
        self.addCleanup(lambda: [one.close() for one in idle])
        for number in range(1000):
            idle.append(socket.create_connection(("127.0.0.1", self.gateway.port), 10,
                                                 ("127.0.0.2", 0)))
            if number % 2:  # half of them have had an answer before
                idle[-1].sendall(GET + HOST + b"\r\n")
        for one in idle[1::2]:
            self.assertTrue(one.recv(4096).startswith(b"HTTP/1.1 404 "))
        began = time.monotonic()
        for _ in range(20):
            self.assert_serving()
        self.assertLess(time.monotonic() - began, 10)
        before = self.gateway.descriptors()
        for one in idle:
            one.close()
        harness.wait_until(lambda: self.gateway.descriptors() <= before - 990, 10,
                           "the descriptors of the closed connections")

    def test_one_address_cannot_take_every_connection(self):
        harness.allow_many_descriptors()
        greedy = []
        self.addCleanup(lambda: [one.close() for one in greedy])
        for _ in range(1150):
            greedy.append(socket.create_connection(("127.0.0.1", self.gateway.port), 10,
                                                   ("127.0.0.3", 0)))
        for one in greedy[1120:]:  # beyond the limit: refused, with or without a word
            received = client.read_answers(one, 10)
            self.assertIsNotNone(received, "a connection too many stayed open")
            self.assertIn(client.status_of(received), (503, None))
        self.assert_serving()


if __name__ == "__main__":
    unittest.main()
