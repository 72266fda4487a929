"""What the connector and the web server make of one server's words, and say to it."""

import threading
import time

import fake_server as wire
import pytest
from fake_server import page, word
from processes import wait_until


def play(played, serve):
    server, host = played
    server.serve = serve
    return host


def test_status_line_and_headers_of_a_response(played):
    def serve(peer, _):
        peer.send(wire.status(299, "Quite all right"), wire.header("Server", "inner"),
                  wire.header("date", "then"), wire.header("set-cookie", "a=1"),
                  wire.header("Set-Cookie", "b=2"), wire.header("X-A", "1\r\nX-Evil: 2"),
                  wire.header("content-length", "9" * 20),  # which no number holds
                  wire.client(b"body"), word(wire.FINISH))
    response = play(played, serve).fetch("/demo/")
    assert (response.status, response.reason, response.body) == (299, "Quite all right", b"body")
    assert response.all("set-cookie") == ["a=1", "b=2"] and response.all("X-Evil") == []
    assert response.header("content-length") is None
    assert "inner" not in response.all("server") and "then" not in response.all("date")


def test_unread_body_does_not_become_the_next_request(played):
    server, host = played
    with host.connect() as browser:
        browser.ask("POST", "/demo/", body=b"GET /demo/evil HTTP/1.1\r\n\r\n")
        assert browser.read().body == b"fake"
    assert host.fetch("/demo/after").body == b"fake"
    assert server.requests == ["/demo/", "/demo/after"]


def test_kept_connection_is_used_again_and_may_die_unnoticed(played):
    server, host = played
    with host.connect() as browser:  # so that one conversation has ended before the next
        browser.fetch("GET", "/demo/1")
        opened = len(server.peers)
        for _ in range(5):
            assert browser.fetch("GET", "/demo/2").body == b"fake"
        assert len(server.peers) == opened
        server.drop_connections()
        assert browser.fetch("GET", "/demo/3").body == b"fake"
    assert server.requests.count("/demo/3") == 1


@pytest.mark.parametrize("length", [wire.header("content-length", "8"), b""])
def test_blocks_reach_the_browser_as_they_come(played, length):
    seen = threading.Event()

    def serve(peer, _):
        peer.send(wire.status(200), length, wire.client(b"half"))
        peer.get_header("host")  # by now the block has been passed on
        assert seen.wait(60)
        peer.send(wire.client(b"rest"), word(wire.FINISH))
    with play(played, serve).connect() as browser:
        browser.ask("GET", "/demo/")
        for expected in (b"half", b"rest"):
            received = b""
            while expected not in received:
                received += browser.some() or pytest.fail("broke off")
            seen.set()


def test_whole_blocks_leave_wherever_the_server_pauses(played):
    """Blocks of all sizes, and a pause around the end of each: what is whole by then is
    with the browser, and nothing else."""
    sizes = (5, 300, 8192, 8192, 20000, 1, 70000, 12)
    blocks = [bytes([97 + number]) * size for number, size in enumerate(sizes)]
    body, seen = b"".join(blocks), threading.Event()
    answer = wire.status(200) + wire.header("content-length", str(len(body)))
    pauses = {}  # how far the server goes, and what of the body is whole by then
    whole = 0
    for block in blocks:
        answer += wire.client(block)
        pauses |= {len(answer) - 1: whole, len(answer) - 2 * len(block) // 3: whole}
        whole += len(block)
        pauses |= {len(answer) + behind: whole for behind in (0, 3, 4, 7, 8)}
    answer += word(wire.FINISH)

    def serve(peer, uri):
        pause = int(uri.rpartition("/")[2])
        peer.send(answer[:pause])
        assert seen.wait(20)
        seen.clear()
        peer.send(answer[pause:])
    with play(played, serve).connect() as browser:
        for pause, whole in sorted(pauses.items()):
            browser.ask("GET", f"/demo/{pause}")
            received = b""
            while len(received.partition(b"\r\n\r\n")[2]) < whole:
                received += browser.some() or pytest.fail("broke off")
            assert len(received.partition(b"\r\n\r\n")[2]) == whole, pause
            seen.set()
            while len(received.partition(b"\r\n\r\n")[2]) < len(body):
                received += browser.some() or pytest.fail("broke off")
            assert received.partition(b"\r\n\r\n")[2] == body, pause


def test_browser_that_leaves_ends_the_answer_and_nothing_else(played):
    ended = []

    def serve(peer, uri):
        if uri != "/demo/long":
            return peer.send(page(b"short"))
        try:
            peer.send(wire.status(200))
            for _ in range(10_000):
                peer.send(wire.client(b"x" * 65536))
        except OSError:
            ended.append(True)
        return False
    host = play(played, serve)
    with host.connect() as browser:
        browser.ask("GET", "/demo/long")
        assert browser.some()
    wait_until(lambda: ended, "the connector has dropped the conversation")
    assert host.fetch("/demo/next").body == b"short"


def test_slow_server_is_waited_for_as_long_as_it_takes_pings(site):
    def serve(peer, _):
        time.sleep(2.5)
        peer.send(page(b"late"))
    host = site.host(site.fake(serve), recvtimeout=1)
    assert host.fetch("/demo/").body == b"late"
