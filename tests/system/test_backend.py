"""vesk-backend alone: what is sent to it as the connector sends it, and each word it answers."""

import json
import signal
import socket
from contextlib import ExitStack, closing
from types import SimpleNamespace

import fake_server as wire
import pytest
from fake_server import text, word

SET_ATTRIBUTE, SET_HEADER, PUT_LOAD_VALUE, SET_SESSION_ID = 18, 32, 41, 42
VARIABLES = (19, 22, 29, 28, 20, 21, 24, 25, 26, 27, 33, 34, 35)  # in the order of a frame
QUERY_STRING, REQUEST_METHOD = VARIABLES[:2]

# What a server may say before the end of a conversation, and what follows: words and texts.
OPERANDS = {wire.GET_HEADER: "t", wire.GET_REALPATH: "t", wire.PUT_STATUS: "wt",
            wire.PUT_HEADER: "t", wire.PUT_CLIENT: "t", wire.GET_DATA: "w", SET_ATTRIBUTE: "tt",
            wire.PUT_HEADER_VALUE: "tt", PUT_LOAD_VALUE: "w"}
LOAD = 4_000_000_000
TAIL = [(PUT_LOAD_VALUE, LOAD - (1 << 32)), (wire.FINISH,)]


def items(number, pairs):
    return b"".join(word(number) + text(name) + text(value) for name, value in pairs)


def ask(target, headers=(), method="GET", attributes=(), session=None):
    """The frame of a request for a page, which a query may follow."""
    page, _, query = target.partition("?")
    values = {QUERY_STRING: query, REQUEST_METHOD: method}
    return word(wire.SERVICE) + text(
        items(SET_ATTRIBUTE, attributes) +
        b"".join(word(item) + text(values.get(item, "")) for item in VARIABLES) +
        word(wire.SET_URI) + text("/demo/" + page) + items(SET_HEADER, headers) +
        (word(SET_SESSION_ID) + text(session) if session else b"") + word(wire.HEADERS_END))


class Connector(wire.Reader):
    """The connector's end. A server that neither answers nor closes fails the test."""

    def __init__(self, address, sent):
        host, port = address.split(":")
        self.sock = socket.create_connection((host, int(port)), timeout=20)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        super().__init__(self.sock.makefile("rb"))
        self.send(word(wire.PING) + sent)

    def close(self):
        self.stream.close()
        self.sock.close()

    def send(self, sent):
        self.sock.sendall(sent)

    def rest(self):
        """All that comes until the server closes; with bytes unread, that is a reset."""
        came = b""
        try:
            while block := self.stream.read1(65536):
                came += block
        except ConnectionResetError:
            pass
        return came

    def reply(self, body=b"", end=0):
        """One whole conversation. The body of the request, then `end`, answers GET_DATA."""
        said = []
        while (command := self.word()) in OPERANDS:
            operands = [self.word() if kind == "w" else self.text() for kind in OPERANDS[command]]
            said.append((command, *operands))
            if command == wire.GET_DATA:
                block, body = body[:operands[0]], body[operands[0]:]
                self.send(word(wire.PUT_DATA) + (text(block) if block else word(end)))
            if command in (wire.GET_HEADER, wire.GET_REALPATH):
                self.send(text(f"<{operands[0]}>"))
        assert command == wire.FINISH, (command, said)
        blocks = [texts[0] for number, *texts in said if number == wire.PUT_CLIENT]
        return SimpleNamespace(
            said=said + [(command,)], body="".join(blocks).encode("latin-1"),
            status=next(one[1] for one in said if one[0] == wire.PUT_STATUS))


@pytest.fixture
def server(site):
    return site.backend("A001", buddies="B002,*", load_value=LOAD)


@pytest.fixture
def connect(server):
    """Opens connections that send a ping and what is given."""
    with ExitStack() as opened:
        yield lambda sent=b"": opened.enter_context(closing(Connector(server.address, sent)))


def test_pings_are_taken_anywhere_between_and_bytes_one_by_one(connect):
    peer, ping, question = connect(), word(wire.PING), word(wire.GET_PROPS)
    for byte in (ping + question + text("servlet-mappings") + ping + question + text("unknown") +
                 ping + ask("sleep?ms=0")):
        peer.send(bytes([byte]))
    expected = wire.set_answer("/demo/*=demo\n*.jsp=demo\n") + word(wire.FINISH)
    assert peer.bytes(len(expected)) == expected
    assert peer.reply().body == b"slept 0 ms\n"
    peer.sock.shutdown(socket.SHUT_WR)
    assert peer.rest() == b""


def test_attribute_is_set_before_the_page(connect):
    reply = connect(ask("attribute?name=n&value=v%00w", attributes=[("came", "before")])).reply()
    assert reply.said[0] == (SET_ATTRIBUTE, "n", "v\0w")
    assert json.loads(reply.body)["received"] == [{"name": "came", "size": 6, "text": "before"}]


@pytest.mark.parametrize("method,page", [("GET", "status?code=204")] + [
    ("HEAD", page) for page in ("bytes", "snoop", "index.jsp", "nothing")])
def test_answer_without_a_body_is_a_head_and_the_tail(connect, method, page):
    said = connect(ask(page, method=method)).reply().said
    assert [one[0] for one in said[:2]] == [wire.PUT_STATUS, wire.PUT_HEADER]
    assert said[2:] == TAIL


@pytest.mark.parametrize("headers,type_and_length", [
    ([("content-type", "a/b"), ("content-length", "300000")],
     "Content-Type: a/b\r\nContent-Length: 300000\r\n"),
    ([("content-type", "a\r\nb: c")], "Content-Type: application/octet-stream\r\n")])
def test_echo_gives_back_every_byte(connect, headers, type_and_length):
    body = bytes((i * i >> 7) & 255 for i in range(300_000))
    reply = connect(ask("echo", headers)).reply(body)
    assert reply.body == body and reply.said[-2:] == TAIL
    assert (wire.PUT_HEADER, type_and_length + "Cache-Control: no-store\r\n") in reply.said


@pytest.mark.parametrize("page,body,end,status", [
    ("echo", b"", -1, 400), ("echo", b"", 0, 400), ("echo", b"123456789", -1, 200),
    ("upload", b"123456789", 0, 400), ("upload", b"123456789", -1, 400)])
def test_body_that_breaks_off_ends_well(connect, page, body, end, status):
    peer = connect(ask(page, [("content-length", "10")], "POST"))
    assert peer.reply(body, end).status == status
    peer.send(ask("sleep?ms=0"))
    assert peer.reply().status == 200


@pytest.mark.parametrize("body,end,status", [(b"m7\n" * 9, 0, 200), (b"m7\n" * 8, -1, 400),
                                             (b"m7\n" * 8 + b"m8\n", 0, 400)])
def test_marked_checks_its_body_and_tells_once_that_it_was_carried_out(server, connect, body, end,
                                                                       status):
    headers = [("content-length", "27")]
    reply = connect(ask("marked?mark=m7&blocks=2&size=30", headers, "POST")).reply(body, end)
    assert reply.status == status
    assert server.errors().count("carried out m7\n") == (status == 200)
    if status == 200:
        assert reply.body.decode() == "".join(f"m7 A001 {n}/2 ".ljust(29, ".") + "\n" for n in (1, 2))
        assert "Content-Length: 60\r\n" in reply.said[2][1]


def test_session_of_another_server_is_taken_over(connect):
    ours, peer = "JSESSIONID=A001abcTRB002****", connect()
    given = (wire.PUT_HEADER_VALUE, "Set-Cookie", ours + "; Path=/; HttpOnly")
    for cookie, *expected in (("JSESSIONID=Z999abcTRA001", "adopted", "Z999", 1, [given]),
                              (ours, "known", None, 2, [])):
        peer.send(ask("session", [("cookie", cookie)]))
        reply = peer.reply()
        facts = json.loads(reply.body)
        cookies = [one for one in reply.said if one[0] == wire.PUT_HEADER_VALUE]
        assert [facts["state"], facts["from"], facts["count"], cookies] == expected


QUERIES = {
    200: ("die?at=start&only=B002", "busy?only=B002"),
    400: ("status?code=100", "status?code=302&location=%0d%0aX:1", "bytes?n=-1",
          "bytes?n=17179869185", "stream?size=1048577", "die?at=nowhere",
          "die?at=start&how=softly"),
    404: ("nothing",)}


@pytest.mark.parametrize("status,targets", QUERIES.items())
def test_bad_queries_get_a_page(connect, status, targets):
    peer = connect()
    for target in targets:
        peer.send(ask(target))
        assert peer.reply().status == status, target


FRAME, QUESTION = word(wire.SERVICE), word(wire.GET_PROPS)
ECHO, DATA = ask("echo", [("content-length", "10")]), word(wire.PUT_DATA)
ASKED = word(wire.GET_DATA) + word(10)
BREAKING = {  # what is sent, and all that comes before the end
    "no data but a ping": (ECHO + word(wire.PING) + word(0), ASKED),
    "more data than asked": (ECHO + DATA + word(11), ASKED),
    "less data than none": (ECHO + DATA + word(-2), ASKED),
    "a header of -1 bytes": (ask("snoop?header=a") + word(-1), word(wire.GET_HEADER) + text("a")),
    "a path of 2 GB": (ask("snoop?realpath=a") + word(0x7fffffff),
                       word(wire.GET_REALPATH) + text("a")),
    "busy": (ask("busy"), word(wire.BUSY)),
    "death in a word": (ask("die?at=word"), bytes(2)),
    "death at once": (ask("die?at=start"), b""),
    "an answer to nothing": (word(wire.PUT_PROPS), b""),
    "zero": (word(0), b""), "a command below zero": (word(-1), b""),
    "a frame of -1 bytes": (FRAME + word(-1), b""),
    "a frame of 2 GB": (FRAME + word(0x7fffffff), b""),
    "a frame of 16 MB and 1": (FRAME + word((16 << 20) + 1), b""),
    "an empty frame": (FRAME + word(0), b""),
    "a set name of 1 GB": (QUESTION + word(1 << 30), b""),
    "a set name of -5 bytes": (QUESTION + word(-5), b"")}


@pytest.mark.parametrize("sent,answer", BREAKING.values(), ids=BREAKING.keys())
def test_what_breaks_the_protocol_ends_the_connection(connect, sent, answer):
    assert connect(sent).rest() == answer


@pytest.mark.parametrize("number,pause,finished", [(signal.SIGTERM, 300, True),
                                                   (signal.SIGINT, 600_000, False)])
def test_signal_lets_a_conversation_end_unless_it_runs_on(server, connect, number, pause, finished):
    idle, busy = connect(), connect(ask(f"stream?blocks=2&size=3&ms={pause}"))
    assert busy.word() == wire.PUT_STATUS
    server.signal(number)
    assert idle.rest() == b""
    assert busy.rest().endswith(word(wire.FINISH)) == finished
    assert server.process.wait(60) == 0
