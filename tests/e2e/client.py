"""HTTP clients for the tests: a Digest client of our own, and one that reads alert streams."""
import functools
import hashlib
import http.client
import json
import re
import secrets
import xml.etree.ElementTree as ElementTree

ANSWER_TIME = 20  # seconds; every request must be answered long before


class Answer:
    """A complete answer of the server."""

    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    def json(self):
        return json.loads(self.body)

    def xml(self):
        return ElementTree.fromstring(self.body)

    def type(self):
        return self.headers.get("Content-Type", "")

    def __repr__(self):
        return f"{self.status} {dict(self.headers)} {self.body[:300]!r}"


def md5(text):
    return hashlib.md5(text.encode()).hexdigest()


def parse_challenge(value):
    if not value.startswith("Digest "):
        raise AssertionError(f"no Digest challenge: {value!r}")
    return {name: quoted or plain
            for name, quoted, plain in re.findall(r'(\w+)=(?:"([^"]*)"|([^\s,]+))', value)}


class Client:
    """Keeps one connection and one login. Answers a challenge once; never retries anything else."""

    def __init__(self, port, user=None, password=None, source="127.0.0.1", timeout=ANSWER_TIME,
                 tls=None):
        """`tls`: an SSLContext, for HTTPS."""
        self.user, self.password = user, password
        self.challenge, self.uses = None, 0
        kind = http.client.HTTPConnection if tls is None else functools.partial(
            http.client.HTTPSConnection, context=tls)
        self.connection = kind("127.0.0.1", port, timeout=timeout, source_address=(source, 0))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.connection.close()

    def once(self, method, url, body=None, headers=None):
        """One request and its answer, with the login when there is a challenge to answer."""
        sent = dict(headers or {})
        if self.challenge and self.user is not None:
            sent["Authorization"] = self.authorization(method, url)
        try:
            self.connection.request(method, url, body=body, headers=sent)
            response = self.connection.getresponse()
            return Answer(response.status, response.headers, response.read())
        except Exception:
            self.connection.close()
            raise

    def request(self, method, url, body=None, headers=None):
        answer = self.once(method, url, body, headers)
        if answer.status != 401 or self.user is None:
            return answer
        challenge = parse_challenge(answer.headers.get("WWW-Authenticate", ""))
        if self.challenge and challenge.get("stale", "").lower() != "true":
            return answer  # these credentials were refused
        self.challenge, self.uses = challenge, 0
        return self.once(method, url, body, headers)

    def get(self, url, **kwargs):
        return self.request("GET", url, **kwargs)

    def put(self, url, body=b"", **kwargs):
        return self.request("PUT", url, body, **kwargs)

    def post(self, url, body=b"", **kwargs):
        return self.request("POST", url, body, **kwargs)

    def delete(self, url, **kwargs):
        return self.request("DELETE", url, **kwargs)

    def authorization(self, method, url):
        self.uses += 1
        realm, nonce = self.challenge["realm"], self.challenge["nonce"]
        count, cnonce = f"{self.uses:08x}", secrets.token_hex(8)
        ha1 = md5(f"{self.user}:{realm}:{self.password}")
        response = md5(f"{ha1}:{nonce}:{count}:{cnonce}:auth:{md5(f'{method}:{url}')}")
        return (f'Digest username="{self.user}", realm="{realm}", nonce="{nonce}", uri="{url}", '
                f'qop=auth, nc={count}, cnonce="{cnonce}", response="{response}"')


class AlertStream:
    """An open alert stream; its parts are read one by one."""

    URL = "/KAVRO/Event/notification/alertStream"
    SILENCE = 45  # seconds without a byte; the server ends a stream that nothing is written to

    def __init__(self, port, user, password, source="127.0.0.1", tls=None):
        self.client = Client(port, user, password, source, self.SILENCE, tls)
        self.client.request("GET", "/KAVRO/Security/userCheck")  # for the challenge
        connection = self.client.connection
        connection.request("GET", self.URL, headers={
            "Authorization": self.client.authorization("GET", self.URL)})
        self.response = connection.getresponse()
        self.status = self.response.status

    def close(self):
        self.response.close()
        self.client.close()

    def part(self):
        """The next part as (content type, body); None when the stream has ended."""
        first = self.response.readline()
        if not first:
            return None
        if first != b"--boundary\r\n":
            raise AssertionError(f"no boundary: {first!r}")
        head = b"".join(self.response.readline() for _ in range(3)).decode()
        kind, length = re.fullmatch(r"Content-Type: (.*)\r\nContent-Length: (\d+)\r\n\r\n",
                                    head).groups()
        return kind, self.response.read(int(length))

    def alarm(self):
        """The next part that is no heartbeat; None when the stream has ended."""
        while (part := self.part()) and b"Heart Beat" in part[1]:
            pass
        return part
