#!/usr/bin/env python3
"""A client of the KAVRO gateway with the package "requests", which knows the Digest login.

KAVRO_URL=http://HOST:8080 KAVRO_USER=admin KAVRO_PASSWORD=... kavro_requests.py ORDER
ORDER: info | rename CHANNEL NAME | search TRACK FROM TO | alerts [COUNT]
"""
import json
import os
import sys
import time
import xml.etree.ElementTree as ElementTree

import requests
import requests.auth

URL = os.environ["KAVRO_URL"].rstrip("/")
ANSWER_TIME = 75  # seconds; the gateway itself gives a device up after 70
SILENCE = 20      # seconds without a byte of a stream, which has a heartbeat every 5
SEARCH = """<CMSearchDescription><searchID>example</searchID>
<trackIDList><trackID>{}</trackID></trackIDList>
<timeSpanList><timeSpan><startTime>{}</startTime><endTime>{}</endTime></timeSpan></timeSpanList>
<maxResults>20</maxResults><searchResultPostion>{}</searchResultPostion></CMSearchDescription>"""

session = requests.Session()  # one login for all requests; it counts the uses of its nonce
session.auth = requests.auth.HTTPDigestAuth(os.environ["KAVRO_USER"], os.environ["KAVRO_PASSWORD"])


class Refused(Exception):
    def __init__(self, response):
        if "json" in response.headers.get("Content-Type", ""):  # the gateway's own faults
            reason = response.json()["subStatusCode"]
        else:
            reason = ElementTree.fromstring(response.content).findtext("subStatusCode")
        super().__init__(f"{response.status_code} {reason}")
        self.lasting = response.status_code < 500 and reason != "tooManyAlertStreams"


def ask(method, path, body=None, **more):
    response = session.request(method, URL + path, data=body, **{"timeout": ANSWER_TIME, **more})
    if response.status_code != 200:
        raise Refused(response)
    return response


def xml(method, path, body=None):
    return ElementTree.fromstring(ask(method, path, body).content)


def parts(stream):
    """Type and bytes of each part, until the stream ends."""
    while line := stream.readline():
        if line.startswith(b"--"):
            head = {}
            while (line := stream.readline()).strip():
                name, value = line.decode().split(":", 1)
                head[name.lower()] = value.strip()
            yield head["content-type"], stream.read(int(head["content-length"]))


def alerts():
    """Alarms for ever; a broken stream is opened again, a second later at first, then less often."""
    delay = 1
    while True:
        try:
            with ask("GET", "/KAVRO/Event/notification/alertStream", stream=True,
                     timeout=SILENCE) as answer:
                for kind, body in parts(answer.raw):
                    delay = 1
                    alarm = (json.loads(body) if "json" in kind else
                             {each.tag: each.text for each in ElementTree.fromstring(body)})
                    if alarm.get("eventType") != "heartBeat":
                        yield alarm
        except (OSError, requests.RequestException, requests.packages.urllib3.exceptions.HTTPError):
            pass  # the connection ended, or was silent
        except Refused as fault:
            if fault.lasting:
                raise
        time.sleep(delay)
        delay = min(2 * delay, 30)


def search(track, begin, end):
    position, more = 0, True
    while more:
        result = xml("POST", "/KAVRO/ContentMgmt/search", SEARCH.format(track, begin, end, position))
        matches = result.findall("matchList/searchMatchItem")
        yield from matches
        position += len(matches)
        more = matches and result.findtext("responseStatusStrg", "").lower() == "more"


def main(order, *words):
    if order == "info":
        info = xml("GET", "/KAVRO/System/deviceInfo")
        print(*(info.findtext(name) for name in ("deviceName", "model", "serialNumber")))
    elif order == "rename":
        path = f"/KAVRO/Streaming/channels/{words[0]}"
        channel = xml("GET", path)  # edited and put back whole, elements in their order
        channel.find("channelName").text = words[1]
        print(xml("PUT", path, ElementTree.tostring(channel)).findtext("statusString"))
    elif order == "search":
        for match in search(*words):
            print(match.findtext("timeSpan/startTime"), match.findtext(".//playbackURI"))
    elif order == "alerts":
        for _, alarm in zip(range(int(*words or [2**31])), alerts()):
            print(alarm["eventType"], alarm["eventState"], alarm["channelName"], flush=True)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except Refused as fault:
        sys.exit(f"refused: {fault}")
