#!/usr/bin/env python3
"""A client of the KAVRO gateway with nothing but Python's standard library.

KAVRO_URL=http://HOST:8080 KAVRO_USER=admin KAVRO_PASSWORD=... kavro_stdlib.py ORDER
ORDER: info | rename CHANNEL NAME | search TRACK FROM TO | alerts [COUNT]
"""
import hashlib
import http.client
import json
import os
import re
import secrets
import sys
import time
import xml.etree.ElementTree as ElementTree

HOST, USER, PASSWORD = (os.environ["KAVRO_" + name] for name in ("URL", "USER", "PASSWORD"))
ANSWER_TIME, SILENCE = 75, 20  # seconds; a device may take 70, a stream has a heartbeat every 5
SEARCH = """<CMSearchDescription><trackIDList><trackID>{}</trackID></trackIDList>
<timeSpanList><timeSpan><startTime>{}</startTime><endTime>{}</endTime></timeSpan></timeSpanList>
<maxResults>20</maxResults><searchResultPostion>{}</searchResultPostion></CMSearchDescription>"""


class Refused(Exception):
    def __init__(self, status, body):
        reason = (json.loads(body)["subStatusCode"] if body.startswith(b"{") else  # may be either
                  ElementTree.fromstring(body).findtext("subStatusCode"))
        super().__init__(f"{status} {reason}")
        self.lasting = status < 500 and reason != "tooManyAlertStreams"


class Gateway:
    """One connection, and one login that its requests share."""
    def __init__(self, timeout=ANSWER_TIME):
        self.connection = http.client.HTTPConnection(HOST.removeprefix("http://"), timeout=timeout)
        self.challenge, self.count = {}, 0

    def authorization(self, method, url):
        def md5(*parts):
            return hashlib.md5(":".join(parts).encode()).hexdigest()
        realm, nonce = self.challenge["realm"], self.challenge["nonce"]
        self.count += 1  # a count is used once; a used one is refused
        count, own = f"{self.count:08x}", secrets.token_hex(8)
        response = md5(md5(USER, realm, PASSWORD), nonce, count, own, "auth", md5(method, url))
        return (f'Digest username="{USER}", realm="{realm}", nonce="{nonce}", uri="{url}", qop=auth, '
                f'nc={count}, cnonce="{own}", algorithm=MD5, response="{response}"')

    def ask(self, method, url, body=None):
        """The response, unread; after a challenge the request is sent once more."""
        for attempt in range(2):
            headers = {"Authorization": self.authorization(method, url)} if self.challenge else {}
            self.connection.request(method, url, body, headers)
            response = self.connection.getresponse()
            if following := re.search('nextnonce="([^"]+)', response.getheader("Authentication-Info", "")):
                self.challenge["nonce"], self.count = following[1], 0
            if response.status == 200:
                return response
            fault = response.read()
            offered = dict(re.findall(r'(\w+)="?([^",]+)', response.getheader("WWW-Authenticate", "")))
            stale = offered.get("stale", "").lower() == "true"
            if response.status != 401 or attempt or self.challenge and not stale:
                raise Refused(response.status, fault)
            self.challenge, self.count = offered, 0

    def xml(self, method, url, body=None):
        return ElementTree.fromstring(self.ask(method, url, body).read())

    def alerts(self):
        stream = self.ask("GET", "/KAVRO/Event/notification/alertStream")
        while line := stream.readline():
            if line.startswith(b"--"):
                head = http.client.parse_headers(stream)
                body = stream.read(int(head["Content-Length"]))
                if b"Heart Beat" not in body:
                    yield (json.loads(body) if "json" in head["Content-Type"] else
                           {each.tag: each.text for each in ElementTree.fromstring(body)})


def alerts():
    """Alarms for ever; a broken stream is opened again, a second later at first, then less often."""
    delay = 1
    while True:
        try:
            for alarm in Gateway(SILENCE).alerts():
                yield alarm
                delay = 1
        except (OSError, http.client.HTTPException, Refused) as fault:
            if getattr(fault, "lasting", False):
                raise
        time.sleep(delay)
        delay = min(2 * delay, 30)


def main(order, *words):
    gateway = Gateway()
    if order == "info":
        info = gateway.xml("GET", "/KAVRO/System/deviceInfo")
        print(*map(info.findtext, ("deviceName", "model", "serialNumber")))
    elif order == "rename":
        url = f"/KAVRO/Streaming/channels/{words[0]}"
        channel = gateway.xml("GET", url)  # edited and put back whole, elements in their order
        channel.find("channelName").text = words[1]
        print(gateway.xml("PUT", url, ElementTree.tostring(channel)).findtext("statusString"))
    elif order == "search":
        position, more = 0, True
        while more:
            result = gateway.xml("POST", "/KAVRO/ContentMgmt/search", SEARCH.format(*words, position))
            more = (result.findtext("responseStatusStrg") or "").lower() == "more"
            for match in result.findall("matchList/searchMatchItem") or sys.exit():
                print(match.findtext("timeSpan/startTime"), match.findtext(".//playbackURI"))
                position += 1
    elif order == "alerts":
        for _, alarm in zip(range(int(*words or [10**9])), alerts()):
            print(alarm["eventType"], alarm["eventState"], alarm["channelName"], flush=True)


try:
    main(*sys.argv[1:])
except Refused as fault:
    sys.exit(f"refused: {fault}")
