"""An HTTP client that sends exactly the bytes it is told to send."""

import http.client
import json
import socket


class Response:
    def __init__(self, received):
        self.status, self.reason = received.status, received.reason
        self.headers = received.getheaders()  # in the order of arrival
        self.complete = True  # False: the connection broke inside the body
        try:
            self.body = received.read()
        except http.client.IncompleteRead as broken:
            self.complete, self.body = False, broken.partial

    def all(self, name):
        return [v for n, v in self.headers if n.lower() == name.lower()]

    def header(self, name):
        return next(iter(self.all(name)), None)

    def json(self):
        return json.loads(self.body)


class Connection:
    """One connection to a web server; responses are read in their order."""

    def __init__(self, address, timeout=120):
        self.sock = socket.create_connection(address, timeout)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.stream = self.sock.makefile("rb", 1 << 18)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()
        self.sock.close()

    def send(self, data):
        self.sock.sendall(data)

    def ask(self, method, target, headers=(), body=None, version="1.1"):
        """Sends a request; a body goes out with its content-length."""
        fields = list(headers)
        if not any(name.lower() == "host" for name, _ in fields):
            fields.insert(0, ("Host", "localhost"))
        if body is not None:
            fields.append(("Content-Length", str(len(body))))
        head = "".join(f"{name}: {value}\r\n" for name, value in fields)
        self.send(f"{method} {target} HTTP/{version}\r\n{head}\r\n".encode() + (body or b""))

    def fetch(self, method, target, headers=(), body=None):
        self.ask(method, target, headers, body)
        return self.read(method)

    def read(self, method="GET"):
        """Reads one response and nothing of what follows; interim ones are passed over."""
        received = http.client.HTTPResponse(self, method=method)
        received.begin()
        return Response(received)

    def head(self):
        """Reads only status line and headers, also of an interim response."""
        return list(iter(self.stream.readline, b"\r\n"))

    def some(self, most=1 << 18):
        """What has come, at least a byte; nothing once the server has closed."""
        try:
            return self.stream.read1(most)
        except ConnectionError:
            return b""

    def at_end(self):
        """True when the server closes without sending anything more."""
        return self.some() == b""

    def makefile(self, _):
        """The stream for one response, which stays open for the next."""
        return Unclosed(self.stream)


class Unclosed:
    def __init__(self, stream):
        self.readline, self.read = stream.readline, stream.read
        self.flush = self.close = lambda: None
