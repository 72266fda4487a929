"""What only the embedded web server decides: bytes on the wire, own pages, start and stop."""

import contextlib
import grp
import os
import pathlib
import pwd
import re
import resource
import signal
import socket
import subprocess
import time

import fake_server as wire
import pytest
from browser import Connection
from conftest import Site
from fake_server import word
from processes import BUILD, REDUCED, EmbeddedHost, wait_until


def echo(peer, _):
    """Sends the body back as it comes."""
    peer.send(wire.status(200))
    while (block := peer.get_data(1000))[0] > 0:
        peer.send(wire.client(block[1]))
    peer.send(word(wire.FINISH))


def late(peer, _):
    """Answers when the body has been read, or has broken off."""
    while peer.get_data(1000)[0] > 0:
        pass
    peer.send(wire.page(b"late"))


def flood(peer, _):
    """A page without an end, until nobody takes it any more."""
    peer.send(wire.status(200))
    while True:
        peer.send(wire.client(b"x" * 9999))


PAGES = {"/demo/echo": echo, "/demo/late": late, "/demo/flood": flood,
         "/demo/host": lambda peer, _: peer.send(wire.page(peer.get_header("host").encode())),
         "/demo/empty": lambda peer, _: peer.send(wire.status(200), word(wire.FINISH)),
         "/demo/half": lambda peer, _: peer.send(wire.status(200), wire.client(b"half"), word(77))}


@pytest.fixture
def front(played):
    """The web server with files of its own, before a server that plays PAGES."""
    server, host = played
    server.serve = lambda peer, uri: PAGES.get(uri, server.greet)(peer, uri)
    for name, content in (("index.html", "front"), ("sub/index.jsp", "inner"), ("a b.css", "css"),
                          ("bare/x", ""), (".git/x", "secret"), ("sub/.x", "secret"),
                          (".well-known/x", "known"), ("digits", "0123456789")):
        (host.htdocs / name).parent.mkdir(exist_ok=True)
        (host.htdocs / name).write_text(content)
    with contextlib.suppress(FileExistsError):
        (host.htdocs / "out").symlink_to(host.path("conf"))
    return host


def ask(host, sent):
    """All that comes back. A line of method and path is a whole request."""
    with host.connect(timeout=20) as browser:
        browser.send(sent if b"\r\n" in sent else sent + b" HTTP/1.1\r\nHost: a\r\n\r\n")
        browser.sock.shutdown(socket.SHUT_WR)
        return b"".join(iter(browser.some, b"")).decode()


GET, POST = b"GET / HTTP/1.1\r\nHost: a\r\n%s\r\n", b"POST /demo/%s HTTP/1.1\r\nHost: a\r\n"
CHUNKED = b"Transfer-Encoding: chunked\r\n\r\n"
OK, BAD, PAGE = "1.1 200 OK", "1.1 400 Bad Request", ".*</h1></body></html>\n"
ANSWERS = [
    (b"GET /", OK, ".*\r\n\r\nfront"), (b"GET /a%20b.css?q", OK, ".*\r\n\r\ncss"),
    (b"HEAD /", OK, ".*content-length: 5\r\n\r\n"),
    (b"GET http://any:80/a%20b.css", OK, ".*\r\n\r\ncss"),
    (b"GET HTTP://any", OK, ".*\r\n\r\nfront"),
    (b"GET *", BAD, PAGE), (b"GET ftp://any/", BAD, PAGE), (b"GET http://a@b/", BAD, PAGE),
    (b"GET http://any:81/demo/host", OK, ".*\r\n\r\nany:81"),
    (b"GET /.git/x", "1.1 404 Not Found", PAGE), (b"GET /sub/.x", "1.1 404 Not Found", PAGE),
    (b"GET /.well-known/x", OK, ".*\r\n\r\nknown"), (b"GET /out", "1.1 403 Forbidden", PAGE),
    (b"OPTIONS *", OK, ".*content-length: 0\r\n\r\n"),
    (b"TRACE /", "1.1 405 Method Not Allowed", ".*allow: GET.*" + PAGE),
    (b"CONNECT a:1", "1.1 405 Method Not Allowed", PAGE),
    (b"BREW /", "1.1 501 Not Implemented", PAGE),
    (b"GET /sub/ HTTP/1.0\r\n\r\n", OK, ".*\r\n\r\ninner"),
    (b"GET /s%75b?%78", "1.1 301 Moved Permanently", ".*location: /s%75b/[?]%78\r\n" + PAGE),
    (b"GET /bare/", "1.1 404 Not Found", PAGE),
    (b"POST /", "1.1 405 Method Not Allowed", ".*allow: GET, HEAD\r\n" + PAGE),
    (b"GET /demo/empty", OK, ".*chunked\r\n\r\n0\r\n\r\n"),
    (b"GET /demo/half HTTP/1.1\r\nHost: a\r\n\r\n" + GET % b"", OK,
     ".*\r\n\r\n4\r\nhalf\r\n.*\r\n0\r\n\r\n"),
    (GET % b"Expect: wonders\r\n", "1.1 417 Expectation Failed", PAGE),
    (GET % b"Expect: wonders\r\nA : b\r\n", BAD, PAGE),
    (GET % (b"H: x\r\n" * 99), OK, ".*\r\n\r\nfront"),
    (GET % (b"H: x\r\n" * 100), "1.1 431 Request Header Fields Too Large", PAGE),
    (b"GET /a%00b", BAD, PAGE), (b"GET /a%zz", BAD, PAGE)]


@pytest.mark.parametrize("sent,line,rest", ANSWERS, ids=[str(row[0][:60]) for row in ANSWERS])
def test_answer_is_right_to_the_byte(front, sent, line, rest):
    came = ask(front, sent)
    assert re.fullmatch(re.escape(f"HTTP/{line}\r\n") + rest, came, re.DOTALL), came
    assert "vesk-internal" not in came


FIELDS = [  # that could be read in two ways, before a Host
    b":A: b", b": b", b"\xe9: b", b"A\xe9: b", b"A\x01: b", b"A\0: b", b"A: b\0c", b"A b: c", b"A",
    b"A : b", b"A\t: b", b" A: b", b"\tA: b", b"A: b\r\n c", b"A: b\r\n\t", b"A: b\nC: d",
    b"A: b\rC: d", b"A: b\r", b"Host: b", b"Host : a", b"Host: a, b", b"Host: a b", b"Host: a/b",
    b"Content-Length : 5", b"Content-Length\t: 5", b"Transfer-Encoding : chunked",
    b"Transfer-Encoding\t: chunked", b"Content-Length: 0\r\nTransfer-Encoding: chunked",
    b"Transfer-Encoding: chunked\r\nContent-Length: 0",
    b"Content-Length: 1\r\nContent-Length: 1", b"Content-Length: 1\r\ncontent-length: 2",
    *(b"Content-Length: " + value for value in (
        b"", b"1, 1", b"1 1", b"-1", b"+1", b"0x1", b"1.", b"%d" % 2**64, b"%d" % 2**63)),
    *(b"Transfer-Encoding: " + value for value in (
        b"", b"gzip", b"identity", b"gzip, chunked", b"chunked, identity", b"chunked, chunked",
        b"chunked\r\nTransfer-Encoding: identity", b"identity\r\nTransfer-Encoding: chunked",
        b"chunked\r\nTransfer-Encoding: chunked", b"xchunked", b"chunked;q=1", b"\x0bchunked",
        b'"chunked"', b"chunked,"))]
SMUGGLED = [(b"POST /demo/x HTTP/1.1\r\n" + field + b"\r\nHost: a\r\n\r\n", 400)
            for field in FIELDS] + [
    (b"GET /demo/x HTTP/1.1" + rest, 400) for rest in (
        b"\r\n\r\n", b"\r\nA: b\r\n\r\n", b"\r\nHost: a\n\r\n", b"\nHost: a\r\n\r\n",
        b"\r\nHost: a\r\n\n", b"\n\r\n", b"\r\r\nHost: a\r\n\r\n", b" \r\nHost: a\r\n\r\n",
        b" HTTP/1.1\r\nHost: a\r\n\r\n", b"\r\nHost: a\r\n\r\r\n\r\n")] + [
    (line + b"\r\nHost: a\r\n\r\n", 400) for line in (
        b"GET /demo/x", b"GET  /demo/x HTTP/1.1", b"GET\t/demo/x HTTP/1.1",
        b" GET /demo/x HTTP/1.1", b"GET /demo/ x HTTP/1.1", b"GET /demo/\rx HTTP/1.1",
        b"GET /demo/\x01x HTTP/1.1", b"G\xe9T /demo/x HTTP/1.1", b"GET /demo/x http/1.1",
        b"GET /demo/x HTTP/1.10", b"GET demo/x HTTP/1.1", b"GET http://a@b/demo/x HTTP/1.1",
        b"\nGET /demo/x HTTP/1.1")] + [
    (b"GET /demo/x HTTP/2.0\r\nHost: a\r\n\r\n", 505), (b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505),
    (b"POST /demo/x HTTP/1.0\r\n" + CHUNKED + b"0\r\n\r\n", 400)]


@pytest.mark.parametrize("sent,status", SMUGGLED, ids=[str(row[0]) for row in SMUGGLED])
def test_what_could_be_read_in_two_ways_is_refused_with_all_behind_it(played, sent, status):
    server, host = played
    came = ask(host, sent + b"GET /demo/behind HTTP/1.1\r\nHost: a\r\n\r\n")
    assert [came[:12], came.count("HTTP/1.1 ")] == [f"HTTP/1.1 {status}", 1], came
    assert not server.requests


@pytest.mark.parametrize("line", [b"BREW /", b"TRACE /", b"OPTIONS *", b"POST /"])
def test_body_that_the_server_has_no_use_for_is_no_request(front, line):
    body = GET % b""
    length = b"Content-Length: %d\r\n\r\n" % len(body)
    came = ask(front, line + b" HTTP/1.1\r\nHost: a\r\n" + length + body + GET % b"")
    assert came.count("HTTP/1.1 ") == 2 and came.count("front") == 1


@pytest.mark.parametrize("said,told,title", [
    ((410, "Gone <fishing>"), (410, "Gone <fishing>"), b"<h1>410 Gone &lt;fishing&gt;</h1>"),
    ((200, "OK"), (500, "Internal Server Error"), b"<h1>500 Internal Server Error</h1>")])
def test_page_of_a_failure_has_the_last_status_unless_that_is_good(site, said, told, title):
    server = site.fake(lambda peer, _: peer.send(wire.status(*said)) or False)
    members = wire.properties([("server", server.address), ("server", "127.0.0.1:1")])
    server.answers["clustered-servers"] = wire.set_answer(members, 3)
    response = site.host(server).fetch("/demo/")
    assert (response.status, response.reason) == told and title in response.body


RANGES = [  # headers about a file of ten digits, status, body and content-range
    ("Range: bytes=2-4", 206, "234", "2-4/10"), ("Range: bytes=-3", 206, "789", "7-9/10"),
    ("Range: bytes=7-", 206, "789", "7-9/10"), ("Range: bytes=8-99", 206, "89", "8-9/10"),
    ("Range: bytes=10-", 416, None, "*/10"), ("Range: bytes=-0", 416, None, "*/10"),
    *((f"Range: {value}", 200, "0123456789", None) for value in (
        "bytes=5-2", "bytes=0-1,4-5", "lines=1-2", "bytes=-", "bytes=x-2")),
    *((f"Range: bytes=2-4\r\nIf-Range: {now}", 206, "234", "2-4/10")
      for now in ("{tag}", "{date}")),
    *((f"Range: bytes=2-4\r\nIf-Range: {other}", 200, "0123456789", None) for other in (
        '"other"', "W/{tag}", "Thu, 01 Jan 1970 00:00:00 GMT")),
    *((known, 304, "", None) for known in (
        'If-None-Match: "x", {tag}', "If-None-Match: W/{tag}", "If-None-Match: *",
        "If-Modified-Since: {date}", "If-None-Match: {tag}\r\nRange: bytes=2-4")),
    ("If-None-Match: \"x\"\r\nIf-Modified-Since: {date}", 200, "0123456789", None)]


@pytest.mark.parametrize("headers,status,body,part", RANGES, ids=[row[0] for row in RANGES])
def test_file_goes_out_as_far_as_the_browser_wants_it(front, headers, status, body, part):
    whole = front.fetch("/digits")
    headers = headers.format(tag=whole.header("etag"), date=whole.header("last-modified"))
    response = front.fetch("/digits", headers=[l.split(": ") for l in headers.split("\r\n")])
    assert (response.status, response.header("content-range")) == (status, part and "bytes " + part)
    assert body is None or response.body.decode() == body


def test_large_file_comes_in_parts_as_it_does_whole(front):
    content = bytes(range(256)) * 4000
    (front.htdocs / "large").write_bytes(content)
    with front.connect() as browser:
        for first, last in ((0, len(content) - 1), (0, 32 << 10), (77, 900_000)):
            wanted = [("Range", f"bytes={first}-{last}")]
            assert browser.fetch("GET", "/large", wanted).body == content[first:last + 1]
        assert browser.fetch("HEAD", "/large").header("content-length") == str(len(content))


def test_headers_reach_the_server_one_by_one(web):
    with web.connect() as browser:
        browser.send(b"GET /demo/snoop HTTP/1.0\r\n"
                     b"X-B:  two\tparts \r\nX-Empty:\r\nx-b: more\r\n\r\n")
        seen = browser.read().json()
    assert seen["variables"]["SERVER_PROTOCOL"] == "HTTP/1.0"
    assert seen["headers"] == [["x-b", "two\tparts"], ["x-empty", ""], ["x-b", "more"]]


BODIES = [b"Content-Length: 5\r\n\r\nabcde", CHUNKED + b"2\r\nab\r\n3\r\ncde\r\n0\r\n\r\n",
          CHUNKED + b'5;x="y"\r\nabcde\r\n0;z\r\nT: u\r\n\r\n']


@pytest.mark.parametrize("size", [1, 1000])  # of a packet
@pytest.mark.parametrize("path,expected", [(b"echo", b"abcde"), (b"unread", b"fake")])
@pytest.mark.parametrize("body", BODIES)
def test_body_is_read_to_its_end_and_no_further(front, body, path, expected, size):
    sent = POST % path + body + GET % b""
    with front.connect() as browser:
        for at in range(0, len(sent), size):
            browser.send(sent[at:at + size])
        assert [browser.read().body, browser.read().body] == [expected, b"front"]


@pytest.mark.parametrize("head,end", [(b"Content-Length: 6\r\n\r\n", b""),
                                      (CHUNKED + b"6\r\n", b"\r\n0\r\n\r\n")])
def test_first_half_comes_back_before_the_second_is_sent(front, head, end):
    with front.connect() as browser:
        for sent, awaited in ((POST % b"echo" + head + b"abc", b"\r\n\r\n3\r\nabc\r\n"),
                              (b"def" + end, b"3\r\ndef\r\n0\r\n\r\n")):
            browser.send(sent)
            came = b""
            while not came.endswith(awaited):
                came += browser.some() or pytest.fail("broke off")


def test_body_that_nobody_asked_for_ends_the_connection(front):
    with front.connect(timeout=20) as browser:
        browser.send(POST % b"unread" + b"Expect: 100-continue\r\nContent-Length: 3\r\n\r\n")
        assert browser.read().body == b"fake" and browser.at_end()


BROKEN = [b"Content-Length: 5\r\n\r\nabc", CHUNKED + b"5\r\nabc", *(
    CHUNKED + b"3\r\nabc" + rest for rest in (
        b"", b"\r\n", b"\r\n0\r\nT: u", *(wrong + b"\r\n\r\n" + GET % b"" for wrong in (
            b"XX0", b"\n0", b"\r0", *(b"\r\n" + line for line in (
                b"x", b"-0", b"+0", b"0x0", b" 0", b"0 ", b" 0;a", b"", b";a", b"f" * 18,
                b"1" + b"0" * 16, b"8" + b"0" * 15, b"0\n", b"0;a\rb", b"0\r", b"0\r\nT: u\n",
                b"0\r\nT: u\rv", b"0\r\nT: \0"))))))]


# The connector tells its server the same at every end, so that is not what counts.
@pytest.mark.parametrize("body", BROKEN)
def test_broken_body_ends_and_nothing_behind_it_is_answered(played, body):
    server, host = played
    blocks = []

    def serve(peer, _):
        while not blocks or blocks[-1][0] > 0:
            blocks.append(peer.get_data(1000))
        peer.send(wire.page(b"fake"))
    server.serve = serve
    came = ask(host, POST % b"" + body)
    assert blocks.pop() == (-1, b"") and b"".join(block for _, block in blocks) in (b"abc", b"")
    assert came.endswith("\r\n\r\nfake") and came.count("HTTP/1.1 ") == 1


def test_interrupt_ends_idle_browsers_at_once_and_a_request_when_it_is_done(site):
    host = site.host(site.fake(echo), verbose="true")
    with host.connect(timeout=20) as idle, host.connect() as busy:
        busy.send(POST % b"echo" + b"Content-Length: 6\r\n\r\nabc")
        busy.head()
        host.signal(signal.SIGINT)
        assert idle.at_end()
        busy.send(b"def")
        assert b"".join(iter(busy.some, b"")).endswith(b"def\r\n0\r\n\r\n")
        assert host.process.wait(60) == 0
    assert host.said("Vesk connector exiting")


TIGHT = ("LimitRequestHead 2048", "LimitRequestFields 20", "LimitRequestUri 256",
         "LimitRequestBody 1000", "LimitTrailers 512", "HeadTimeout 1", "BodyTimeout 1",
         "MinBodyRate 1000", "KeepAliveTimeout 1", "SendTimeout 1")


@pytest.fixture(scope="module")
def tight(tmp_path_factory):
    made = Site(tmp_path_factory.mktemp("tight"))
    made.server = made.fake(lambda peer, uri: PAGES.get(uri, made.server.greet)(peer, uri))
    made.web = made.host(made.server, directives=TIGHT)
    (made.web.htdocs / "index.html").write_text("front")
    yield made.web
    made.close()


COUNTED = b"Content-Length: %d\r\n\r\n"
LIMITS = [  # what is sent, again and again what, the status that comes, and the limit met
    (GET % b"H: %b\r\n" % (b"x" * 3000), b"", "431", "LimitRequestHead"),
    (b"GET / HTTP/1.1\r\n", b"H: x\r\n" * 99, "431", "LimitRequestHead"),
    (GET % (b"H: x\r\n" * 20), b"", "431", "LimitRequestFields"),
    (b"GET /" + b"x" * 256 + b" HTTP/1.1\r\nHost: a\r\n\r\n", b"", "414", "LimitRequestUri"),
    (b"GET /", b"x" * 9, "414", "LimitRequestUri"),
    (POST % b"echo" + COUNTED % 1001, b"", "413", "LimitRequestBody"),
    (POST % b"late" + CHUNKED, b"1f4\r\n" + b"x" * 500 + b"\r\n", "200", "LimitRequestBody"),
    (POST % b"late" + CHUNKED + b"0\r\n", b"T: u\r\n" * 9, "", "LimitTrailers"),
    (POST % b"late" + CHUNKED + b"1;", b"x" * 9, "", "LimitTrailers"),
    (b"GET / HTTP/1.1\r\n", b"", "408", "HeadTimeout"),
    (b"GET / HTTP/1.1\r\n", b"H: x\r\n", "408", "HeadTimeout"),
    (b"", b"", "", "HeadTimeout"), (b"", b"\r\n", "", "HeadTimeout"),
    (GET % b"" + b"GET", b" ", "408", "HeadTimeout"),
    (POST % b"late" + COUNTED % 9 + b"x", b"", "", "BodyTimeout"),
    (POST % b"late" + COUNTED % 900, b"x", "", "MinBodyRate"),
    (POST % b"late" + CHUNKED, b"1\r\nx\r\n", "", "MinBodyRate"),
    (GET % b"", b"", "200", "")]  # which is as idle clients end, and no line is about it


def send_until_closed(browser, sent, again):
    """What comes while more is sent at every pause."""
    came = b""
    browser.sock.settimeout(0.01 if again else 5)
    browser.send(sent)
    for _ in range(250):
        try:
            block = browser.sock.recv(9999)
            came += block
            if not block:
                return came
        except TimeoutError:
            with contextlib.suppress(ConnectionError):
                browser.send(again)
        except ConnectionError:
            return came
    raise AssertionError("still open")


@pytest.mark.parametrize("sent,again,status,option", LIMITS,
                         ids=[f"{row[3]}{str(row[:2])[:60]}" for row in LIMITS])
def test_limit_ends_a_client_and_is_told(tight, sent, again, status, option):
    with tight.connect() as browser:
        came = send_until_closed(browser, sent, again)
    assert re.findall(rb"HTTP/1.1 (\d+)", came)[-1:] == [status.encode()] or not status, came
    assert tight.serves("/")
    tight.wait_said("client 127.0.0.1 met " + option)


def test_client_that_takes_nothing_is_given_up(tight):
    with socket.create_connection(tight.address) as browser:
        browser.send(POST % b"flood" + COUNTED % 0)
        tight.wait_said("client 127.0.0.1 met SendTimeout")


def test_quiet_client_makes_room_and_one_at_work_does_not(site):
    host = site.host("127.0.0.1:1", directives=["MaxConnections 4", "HeadTimeout 60"])
    (host.htdocs / "index.html").write_text("front")
    with contextlib.ExitStack() as stack:
        def enter(sent):
            browser = stack.enter_context(host.connect())
            browser.send(sent)
            return browser
        idle = enter(GET % b"")
        assert idle.read().body == b"front"
        busy = [enter(b"GET ") for _ in range(3)]
        late = enter(GET % b"")
        assert late.read().body == b"front" and idle.at_end()
        busy.append(enter(b"GET "))  # in the place of the late one
        assert late.at_end()
        last = enter(GET % b"")
        last.sock.settimeout(0.3)
        with pytest.raises(TimeoutError):
            last.sock.recv(1)
        last.sock.settimeout(60)
        host.wait_said("MaxConnections is met, and none of them is idle")
        busy[0].sock.shutdown(socket.SHUT_RDWR)
        assert last.read().body == b"front"


def usage(process, what):
    """A number of a process's status: kilobytes, where it is memory."""
    lines = pathlib.Path(f"/proc/{process.pid}/status").read_text().splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith(what + ":"))


@pytest.mark.parametrize("sent", [GET % b"", b"GET / HTTP/1.1\r\nHost: a\r\nX"])
def test_many_clients_that_wait_cost_little_and_delay_nobody(front, sent):
    files = resource.getrlimit(resource.RLIMIT_NOFILE)[0]
    count = 200 if REDUCED or files < 5000 else 2000
    before = [usage(front.process, what) for what in ("VmRSS", "Threads")]
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            browser = stack.enter_context(socket.create_connection(front.address, 20))
            browser.send(sent)
            assert b"X" in sent or browser.recv(9999).endswith(b"front")
        times = []
        for _ in range(11):
            begin = time.monotonic()
            assert front.fetch("/").body == b"front"
            times.append(time.monotonic() - begin)
        assert sorted(times)[5] < 0.1
        after = [usage(front.process, what) for what in ("VmRSS", "Threads")]
    assert REDUCED or after[0] < before[0] + 32 * 1024
    assert after[1] == before[1]


def kind(**fields):
    """A web server that is started in a way of its own."""
    return type("Special", (EmbeddedHost,), fields)


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGUSR1])
def test_signal_opens_the_log_anew_and_nothing_else(site, number):
    host = site.host(site.fake(), directives=["Listen [::1]:0", "SymlinksLeaveRoot on"])
    wait_until(lambda: host.path("out").read_text().count("listening on") == 2, "both listen")
    (host.htdocs / "out").symlink_to(host.path("conf"))
    second = host.path("out").read_text().split()[-1]
    with Connection(("::1", int(second.rsplit(":", 1)[1]))) as browser:
        assert browser.fetch("GET", "/out").body == host.path("conf").read_bytes()
        host.path("log").rename(host.path("old"))
        host.signal(number)
        wait_until(host.path("log").exists, "a new log")
        browser.send(b"GET /" + b"x" * 20000)
        assert browser.read().status == 414
    host.wait_said("met LimitRequestUri")
    assert "LimitRequestUri" not in host.path("old").read_text() and host.serves()


def test_server_that_never_answers_does_not_hold_up_the_end(site):
    host = site.host(site.fake(lambda peer, _: peer.word()), directives=["StopTimeout 1"])
    with host.connect() as browser:
        browser.send(POST % b"" + b"\r\n")
        wait_until(lambda: site.fakes[0].requests, "the server has the request")
        host.terminate()
        assert host.process.wait(5) == 0
    assert host.said("1 requests hadn't ended after 1 s")


def test_service_manager_passes_sockets_and_hears_of_readiness(site, tmp_path):
    heard = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    with heard, socket.create_server(("127.0.0.1", 0)) as passed:
        heard.bind(str(tmp_path / "notify"))
        heard.settimeout(20)
        program = f'LISTEN_PID=$$ LISTEN_FDS=1 exec "$0" "$@" 3<&{passed.fileno()}'
        host = site.host(site.fake(), directives=["Listen 127.0.0.1:%d" % passed.getsockname()[1]],
                         kind=kind(command=("bash", "-c", program, *EmbeddedHost.command),
                                   surroundings={"pass_fds": [passed.fileno()], "env": {
                                       **os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify")}}))
        assert heard.recv(99) == b"READY=1"
        with Connection(passed.getsockname()) as browser:
            assert browser.fetch("GET", "/demo/").body == b"fake"
        host.stop()
        assert heard.recv(99) == b"STOPPING=1"


@pytest.mark.skipif(os.geteuid() != 0, reason="needs the rights of root")
def test_rights_are_given_up_once_all_is_open(site):
    host = site.host(site.fake(), directives=["User nobody", "Group daemon"])
    assert usage(host.process, "Uid") == pwd.getpwnam("nobody").pw_uid
    assert usage(host.process, "Gid") == grp.getgrnam("daemon").gr_gid
    assert host.serves()


LOAD = f"Init fn=load-modules shlib={BUILD}/lib/veskconnector.so funcs="
REFUSED = [  # an argument, what follows the first Listen, and what is said
    ("", "Threads x\n", "host.conf:2: Threads needs a number"),
    ("", LOAD + "veskfilter\nInit fn=veskfilter\n", "host.conf:3: veskfilter and veskservice have"),
    ("--check", LOAD + "veskinit,nix\n", 'host.conf:2: there is no function "nix" in the module'),
    ("", LOAD + "dup\nInit fn=dup\n", 'host.conf:3: "dup" failed'),  # one that always gives -1
    ("", "ErrorLog no/such/folder.log\n", "host.conf:2: can't open"),
    ("", "Listen 192.0.2.1:9\n", "host.conf:2: can't listen on 192.0.2.1:9: Cannot assign"),
    ("--wrong", "", "--wrong")]


@pytest.mark.parametrize("argument,lines,said", REFUSED, ids=[row[2] for row in REFUSED])
def test_what_cannot_be_used_is_refused(tmp_path, argument, lines, said):
    file = tmp_path / "host.conf"
    file.write_text("Listen 127.0.0.1:0\n" + lines)
    command = [BUILD / "bin/vesk-host", *filter(None, [argument]), file]
    done = subprocess.run(command, capture_output=True, check=False, timeout=20, text=True)
    assert done.returncode == 2 and said in done.stderr
