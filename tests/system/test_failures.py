"""One server that is down, breaks off or has no time: what the browser sees."""

import fake_server as wire
import pytest
from processes import wait_until

PAGE = ("<H2>Server Error</H2>The server encountered an internal error and was unable to "
        "complete your request.<P><B>%s.</B>")
DOWN = PAGE % "Could not connect to Vesk Server"
CLOSED = PAGE % "Vesk closed connection"
PROTOCOL = PAGE % "Vesk Connector Protocol Error"
BUSY = PAGE % ("Application server is busy.  Either there are too many concurrent requests or the "
               "server still is starting up")


@pytest.mark.parametrize("count", [1, 2])
def test_page_while_all_are_down_and_service_when_one_is_back(site, count):
    servers = site.cluster(count)
    host = site.host(servers[0])
    assert host.serves()
    for server in servers:
        server.kill()
    wait_until(lambda: host.fetch("/demo/snoop").status == 503, "the page")
    for _ in range(3):
        with host.connect() as browser:
            response = browser.fetch("GET", "/demo/snoop")
            assert (response.status, response.reason) == (503, "Server Error")
            assert response.header("content-type") == "text/html"
            assert response.header("connection").lower() == "close"
            assert response.body.decode() == DOWN
            assert browser.at_end()
    if count > 1:
        host.wait_said(
            "NO servers reachable in cluster, start your bootstrap server "
            f"{servers[0].address} or one of the servers in your store file {host.store}")
    servers[-1].start()
    wait_until(host.serves, "service again")


def test_errorurl_redirects_every_503_and_nothing_else(site):
    server = site.backend()
    host = site.host(server, errorurl="http://other/sorry.html")
    for target, status in (("/demo/status?code=503", 302), ("/demo/busy", 302),
                           ("/demo/status?code=500", 500)):
        response = host.fetch(target)
        assert response.status == status
        assert response.header("location") == ("http://other/sorry.html" if status == 302 else None)
    server.stop()
    response = host.fetch("/demo/snoop")
    assert (response.status, response.body.decode()) == (302, DOWN)


@pytest.mark.parametrize("code", [403, 404, 500, 503])
def test_connection_is_kept_behind_a_whole_page_or_the_head_says_so(played, code):
    server, host = played
    server.serve = lambda peer, uri: peer.send(
        wire.status(int(uri[-3:])), wire.client(b"a page"), wire.word(wire.FINISH))
    with host.connect() as browser:
        page = browser.fetch("GET", f"/demo/{code}")
        assert page.complete and page.header("transfer-encoding") == "chunked"
        if page.header("connection"):  # httpd's own habit for some
            assert code >= 500 and browser.at_end()
        else:
            assert browser.fetch("POST", "/demo/200", body=b"x").body == b"a page"


BROKEN = [  # the page, the status, how much of the announced 2000 bytes has come, what follows
    ("die?at=headers", 503, 0, CLOSED), ("die?at=question", 503, 0, CLOSED),
    ("die?at=data", 503, 0, CLOSED), ("die?at=negative", 503, 0, PROTOCOL),
    ("die?at=body", 200, 1000, CLOSED), ("die?at=length", 200, 1000, CLOSED),
    ("die?at=zero", 200, 1000, PROTOCOL), ("die?at=unknown", 200, 1000, PROTOCOL),
    ("busy?at=body", 200, 1000, BUSY), ("die?at=finish", 200, 2000, "")]


@pytest.mark.parametrize("target,status,came,follows", BROKEN, ids=[row[0] for row in BROKEN])
def test_connection_ends_behind_an_answer_that_is_not_whole(web, target, status, came, follows):
    with web.connect() as browser:
        response = browser.fetch("GET", "/demo/" + target)
        assert response.status == status
        assert response.body.decode() == "." * came + follows
        assert response.complete == (target == "die?at=finish")
        if response.complete:
            assert browser.fetch("GET", "/hello.txt").body == b"a file\n"
        else:
            assert browser.at_end()
    assert web.serves()


def test_files_are_served_until_the_server_makes_sense(site):
    server = site.fake(answers={"clustered-servers": wire.word(77)})
    host = site.host(server)
    (host.htdocs / "own.txt").write_text("own")
    assert host.fetch("/demo/").status == 404
    assert host.fetch("/own.txt").body == b"own"
    assert host.said("Couldn't initialize from remote server, Vesk server(s) probably down.")
    server.answers.clear()
    assert host.fetch("/demo/").body == b"fake"
