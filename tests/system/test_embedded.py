"""What only the embedded web server decides: bytes on the wire, own pages, start and stop."""

import re
import signal
import socket
import subprocess

import fake_server as wire
import pytest
from fake_server import word
from processes import BUILD


def echo(peer, _):
    """Sends the body back as it comes."""
    peer.send(wire.status(200))
    while (block := peer.get_data(1000))[0] > 0:
        peer.send(wire.client(block[1]))
    peer.send(word(wire.FINISH))


PAGES = {"/demo/echo": echo,
         "/demo/empty": lambda peer, _: peer.send(wire.status(200), word(wire.FINISH)),
         "/demo/half": lambda peer, _: peer.send(wire.status(200), wire.client(b"half"), word(77))}


@pytest.fixture
def front(played):
    """The web server with files of its own, before a server that plays PAGES."""
    server, host = played
    server.serve = lambda peer, uri: PAGES.get(uri, server.greet)(peer, uri)
    for name, content in (("index.html", "front"), ("sub/index.jsp", "inner"), ("a b.css", "css"),
                          ("bare/x", "")):
        (host.htdocs / name).parent.mkdir(exist_ok=True)
        (host.htdocs / name).write_text(content)
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
    (b"OPTIONS *", OK, ".*content-length: 0\r\n\r\n"),
    (b"TRACE /", "1.1 405 Method Not Allowed", ".*allow: GET.*" + PAGE),
    (b"CONNECT a:1", "1.1 405 Method Not Allowed", PAGE),
    (b"BREW /", "1.1 501 Not Implemented", PAGE),
    (b"GET /sub/ HTTP/1.0\r\n\r\n", OK, ".*\r\n\r\ninner"),
    (b"GET /s%75b?%78", "1.1 301 Moved Permanently", ".*location: /s%75b/[?]%78\r\n" + PAGE),
    (b"GET /bare/", "1.1 404 Not Found", PAGE),
    (b"POST /", "1.1 405 Method Not Allowed", ".*allow: GET, HEAD\r\n" + PAGE),
    (b"GET /demo/empty", OK, ".*chunked\r\n\r\n0\r\n\r\n"),
    (b"GET /demo/half HTTP/1.1\r\nHost: a\r\n\r\n" + GET % b"", OK, ".*\r\n\r\n4\r\nhalf\r\n.*\r\n0\r\n\r\n"),
    (GET % b"Expect: wonders\r\n", "1.1 417 Expectation Failed", PAGE),
    (GET % (b"H: x\r\n" * 99), OK, ".*\r\n\r\nfront"),
    (GET % (b"H: x\r\n" * 100), "1.1 431 Request Header Fields Too Large", PAGE),
    (b"GET /a b HTTP/1.1\r\nHost: a\r\n\r\n", BAD, PAGE),
    (b"GET /a%00b", BAD, PAGE), (b"GET /a%zz", BAD, PAGE),
    (GET % b"A: b\r\n c\r\nD: e\r\n", BAD, PAGE),
    (GET % b"Content-Length: 1\r\nContent-Length: 1\r\n" + b"x", BAD, PAGE),
    (GET % b"Content-Length: 3\r\nTransfer-Encoding: chunked\r\n", BAD, PAGE),
    (GET % b"Content-Length: +1\r\n" + b"x", BAD, PAGE)]


@pytest.mark.parametrize("sent,line,rest", ANSWERS, ids=[str(row[0][:60]) for row in ANSWERS])
def test_answer_is_right_to_the_byte(front, sent, line, rest):
    came = ask(front, sent)
    assert re.fullmatch(re.escape(f"HTTP/{line}\r\n") + rest, came, re.DOTALL), came
    assert "vesk-internal" not in came


@pytest.mark.parametrize("said,told,title", [
    ((410, "Gone <fishing>"), (410, "Gone <fishing>"), b"<h1>410 Gone &lt;fishing&gt;</h1>"),
    ((200, "OK"), (500, "Internal Server Error"), b"<h1>500 Internal Server Error</h1>")])
def test_page_of_a_failure_has_the_last_status_unless_that_is_good(site, said, told, title):
    server = site.fake(lambda peer, _: peer.send(wire.status(*said)) or False)
    members = wire.properties([("server", server.address), ("server", "127.0.0.1:1")])
    server.answers["clustered-servers"] = wire.set_answer(members, 3)
    response = site.host(server).fetch("/demo/")
    assert (response.status, response.reason) == told and title in response.body


def test_file_that_the_browser_has_is_not_sent_again(front):
    tag = front.fetch("/").header("etag")
    for known, status, body in ((tag, 304, b""), ('"other"', 200, b"front")):
        response = front.fetch("/", headers=[("If-None-Match", known)])
        assert (response.status, response.body) == (status, body)


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
            b"XX0", b"\r\nx", b"\r\n-1", b"\r\n" + b"f" * 18))))]


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
