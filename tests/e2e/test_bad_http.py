"""Clients that send nonsense, too much, too slowly or nothing at all."""
import socket
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
        (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\x00" * 40, 400),  # TLS
        (GET + b"\r\n", 400),  # no Host
        (POST + b"Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400),
        (b"BREW /none HTTP/1.1\r\n" + HOST + b"\r\n", 501),
        (GET + HOST + b"Endless: " + b"a" * 100000, 431),
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

    def test_a_request_hidden_in_a_body_is_not_served(self):
        before = self.devices.state()["requests"]
        hidden = b"GET /KAVRO/System/time HTTP/1.1\r\n" + HOST + b"\r\n"
        received = client.send_raw(self.gateway.port, POST + b"Connection: close\r\nContent-Length: "
                                   + str(len(hidden)).encode() + b"\r\n\r\n" + hidden)
        self.assertEqual(received.count(b"HTTP/1.1 "), 1)
        self.assertEqual(self.devices.state()["requests"], before)

    def test_slow_senders_are_cut_and_hold_nobody_up(self):
        """One byte every 100 ms, until the gateway has had enough."""
        with socket.create_connection(("127.0.0.1", self.gateway.port), 10) as head, \
                socket.create_connection(("127.0.0.1", self.gateway.port), 10) as body:
            head.sendall(GET)
            body.sendall(POST + b"Content-Length: 1000\r\n\r\n")
            began = time.monotonic()
            slow = {head, body}
            while slow and time.monotonic() - began < 8:
                self.assert_serving()
                for one in list(slow):
                    one.settimeout(0.1)
                    try:
                        received = one.recv(4096)
                        self.assertIn(client.status_of(received), (408, None))
                        slow.remove(one)
                    except TimeoutError:
                        one.sendall(b"a")
            self.assertFalse(slow, "a slow sender went on")


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


if __name__ == "__main__":
    unittest.main()
