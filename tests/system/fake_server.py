"""A backend server that plays what a test tells it, over the private protocol."""

import io
import socket
import struct
import threading

GET_HEADER, GET_REALPATH, PUT_STATUS, PUT_HEADER, PUT_CLIENT, FINISH = 3, 4, 6, 7, 8, 9
PING, GET_PROPS, PUT_PROPS, GET_DATA, PUT_DATA = 12, 13, 14, 15, 16
PUT_HEADER_VALUE, BUSY, SERVICE, PUT_CLUSTER_SEQ = 37, 38, 39, 40

# What a service frame holds: items of a name and a value, or of one text.
PAIRS, TEXTS = {18, 32}, {*range(19, 31), 33, 34, 35, 42}
SET_URI, HEADERS_END = 23, 31


def word(number):
    return struct.pack(">i", number)


def text(value):
    value = value.encode() if isinstance(value, str) else value
    return word(len(value)) + value


def status(code, reason="OK"):
    return word(PUT_STATUS) + word(code) + text(reason)


def header(name, value):
    return word(PUT_HEADER_VALUE) + text(name) + text(value)


def client(body):
    return word(PUT_CLIENT) + text(body)


def page(body, code=200):
    return (status(code) + header("content-type", "text/plain") +
            header("content-length", str(len(body))) + client(body) + word(FINISH))


def properties(values):
    return "".join(f"{key}={value}\n" for key, value in values)


def set_answer(content, sequence=None):
    """The answer to a question for a property set."""
    number = b"" if sequence is None else word(PUT_CLUSTER_SEQ) + word(sequence)
    return number + word(PUT_PROPS) + text(content) + word(FINISH)


class Reader:
    def __init__(self, stream):
        self.stream = stream

    def bytes(self, count):
        data = self.stream.read(count)
        if len(data) < count:
            raise EOFError
        return data

    def word(self):
        return struct.unpack(">i", self.bytes(4))[0]

    def text(self):
        return self.bytes(self.word()).decode("latin-1")

    def request(self):
        """The uri of a service frame, which must be whole."""
        frame, uri = Reader(io.BytesIO(self.bytes(self.word()))), None
        while (item := frame.word()) != HEADERS_END:
            assert item in PAIRS | TEXTS, f"unknown item {item}"
            texts = [frame.text() for _ in range(2 if item in PAIRS else 1)]
            uri = texts[0] if item == SET_URI else uri
        assert not frame.stream.read(), "bytes behind the end item"
        return uri


class Peer(Reader):
    """The connector's end of one connection."""

    def __init__(self, sock):
        super().__init__(sock.makefile("rb"))
        self.sock = sock

    def send(self, *parts):
        self.sock.sendall(b"".join(parts))

    def get_header(self, name):
        self.send(word(GET_HEADER), text(name))
        return self.text()

    def get_data(self, wanted):
        """Gives count and bytes of one frame of the request's body."""
        self.send(word(GET_DATA), word(wanted))
        assert self.word() == PUT_DATA
        count = self.word()
        return count, self.bytes(max(count, 0))


class FakeServer:
    """Answers property sets from its fields, and requests through `serve`.

    `serve(peer, uri)` plays one answer; unless it gives False the connection
    is kept for the next conversation. `answers` replaces the answer to a property
    set by raw bytes.
    """

    def __init__(self, serve=None, mappings=(("/demo/*", "demo"),), props=(), answers=None):
        self.serve = serve or self.greet
        self.props = {"weight": 1, "algorithm": "ROUNDROBIN", "sticky": "true", "mapcheck": 0,
                      "proxyretryinterval": 1, "rep_id": "fake", **dict(props)}
        self.mappings = list(mappings)
        self.answers = answers or {}
        self.requests = []
        self.peers = []
        self.faults = []
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.address = "127.0.0.1:%d" % self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    @staticmethod
    def greet(peer, _):
        peer.send(page(b"fake"))

    def refuse(self):
        """Takes no more connections; those that are there stay."""
        try:
            self.listener.shutdown(socket.SHUT_RDWR)  # a close leaves who waits in accept
        except OSError:
            pass

    def close(self):
        self.refuse()
        self.listener.close()
        self.drop_connections()
        assert not self.faults, self.faults

    def drop_connections(self):
        for peer in self.peers:
            try:
                peer.sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def _accept(self):
        while True:
            try:
                peer = Peer(self.listener.accept()[0])
            except OSError:
                return
            self.peers.append(peer)
            threading.Thread(target=self._talk, args=(peer,), daemon=True).start()

    def _talk(self, peer):
        try:
            with peer.sock, peer.stream:
                assert peer.word() == PING, "a connection begins with a ping"
                while self._conversation(peer):
                    pass
        except (EOFError, OSError):
            pass
        except Exception as fault:  # told to the test when the server is closed
            self.faults.append(repr(fault))

    def _conversation(self, peer):
        command = peer.word()
        if command == PING:
            return True
        if command == GET_PROPS:
            peer.send(self._answer(peer.text()))
            return True
        assert command == SERVICE, f"command {command} opens no conversation"
        uri = peer.request()
        self.requests.append(uri)
        return self.serve(peer, uri) is not False

    def _answer(self, name):
        if name in self.answers:
            return self.answers[name]
        return set_answer({
            "server-props": properties(self.props.items()),
            "servlet-mappings": properties(self.mappings),
            "clustered-servers": properties([("server", self.address)]),
        }[name])
