"""Request and response bodies: sizes, framing, breaking off, pipelining."""

import hashlib
import os
import threading

import pytest
from processes import REDUCED

MEGABYTES = 4 if REDUCED else 20
CHUNKED = b"POST /demo/upload HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
COUNTED = b"POST %s HTTP/1.1\r\nHost: a\r\n%sContent-Length: %d\r\n\r\n"
NEXT = b"GET /demo/snoop?next HTTP/1.1\r\nHost: a\r\n\r\n"


def pattern(size):
    return (bytes(range(251)) * (size // 251 + 1))[:size]


def is_uploaded(response, body):
    seen = response.json()
    return (seen["size"], seen["sha256"]) == (len(body), hashlib.sha256(body).hexdigest())


def test_20_megabytes_come_back_unchanged(web):
    body = os.urandom(MEGABYTES << 20)
    with web.connect() as browser:
        # Sent by a thread of its own: the echo begins before the body has ended.
        sender = threading.Thread(target=browser.ask, args=("POST", "/demo/echo", (), body))
        sender.start()
        response = browser.read()
        sender.join()
    assert response.status == 200
    assert hashlib.sha256(response.body).digest() == hashlib.sha256(body).digest()


@pytest.mark.parametrize("size", [0, 1, 40959, 40960, 40961, 3_000_000])
def test_upload_is_counted_and_digested(web, size):
    assert is_uploaded(web.fetch("/demo/upload", "POST", body=pattern(size)), pattern(size))


@pytest.mark.parametrize("sizes", [(), (1,), (5, 70_000, 1), (1,) * 300])
def test_chunked_request_ends_where_the_next_begins(web, sizes):
    with web.connect() as browser:
        browser.send(CHUNKED)
        for size in sizes:
            browser.send(b"%x\r\n%s\r\n" % (size, pattern(size)))
        browser.send(b"0\r\n\r\n" + NEXT)
        assert is_uploaded(browser.read(), b"".join(pattern(size) for size in sizes))
        assert browser.read().json()["variables"]["QUERY_STRING"] == "next"


def test_continue_is_sent_only_when_the_server_reads(web):
    expect = b"Expect: 100-continue\r\n"
    with web.connect() as browser:
        browser.send(COUNTED % (b"/demo/echo", expect, 5))
        assert browser.head()[0].startswith(b"HTTP/1.1 100 ")
        browser.send(b"hello")
        assert browser.read().body == b"hello"
    with web.connect() as browser:
        browser.send(COUNTED % (b"/demo/status?code=200", expect, 5))
        assert browser.head()[0].startswith(b"HTTP/1.1 200 ")


def test_upload_that_breaks_off_costs_only_itself(web):
    with web.connect() as browser:
        browser.send(COUNTED % (b"/demo/upload", b"", 1000) + b"half")
    web.wait_said("getPostData: Premature read abort on post data")
    assert web.serves()


STREAM = "/demo/stream?blocks=5&size=1000&ms=1"
ANSWERS = [("1.1", STREAM, 5000), ("1.0", STREAM, 5000), ("1.0", "/demo/bytes?n=10", 10)] + [
    ("1.1", f"/demo/bytes?n={size}", size) for size in (0, 1, 65536, 5_000_000)]


@pytest.mark.parametrize("version,target,size", ANSWERS)
def test_response_has_its_framing_and_its_end(web, version, target, size):
    with web.connect() as browser:
        browser.ask("GET", target, version=version)
        response = browser.read()
        assert response.complete and response.body == pattern(size)
        chunked = target == STREAM and version == "1.1"
        assert response.header("transfer-encoding") == ("chunked" if chunked else None)
        assert response.header("content-length") == (None if target == STREAM else str(size))
        if version == "1.0":
            assert browser.at_end()
        else:
            assert browser.fetch("GET", "/hello.txt").body == b"a file\n"
