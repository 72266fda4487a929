"""The status page: counts, forms, what it explains, and what an operator does by it."""

import concurrent.futures
import random
import re
import time
from collections import Counter

import fake_server as wire
import pytest
from processes import wait_until
from status_forms import read_forms, read_html

PAGE = "/vesk-status"


def status(host):
    return host.fetch(PAGE + "?format=json").json()


def token(host):
    return re.search(r'name="token" value="([0-9a-f]{32})"', host.fetch(PAGE).body.decode())[1]


def act(host, action, server, **fields):
    form = {"token": token(host), "server": server.address, "action": action, **fields}
    return host.fetch(PAGE, "POST", body="&".join(f"{k}={v}" for k, v in form.items()).encode())


def who(host, cookie=None):
    page = host.fetch("/demo/session", headers=[("Cookie", cookie)] if cookie else [])
    return page.json()["server"]["rep_id"] if page.status == 200 else page.status


def methods(page):
    assert len(page.all("allow")) == 1
    return set(re.split("[, ]+", page.header("allow"))) - {"TRACE"}  # httpd's own


def session_of(host, server):
    """The cookie of a new session on that server."""
    def fresh():
        page = host.fetch("/demo/session")
        return page.json()["server"]["rep_id"] == server.rep_id and page.header("set-cookie")
    return wait_until(fresh, f"a session on {server.rep_id}").split(";")[0]


class Tally:
    """Played servers of one cluster that count what they are asked and do."""

    def __init__(self, site, count):
        self.done = Counter()  # by server and what it did
        self.fakes = [site.fake(self.player(n), props={"rep_id": f"f{n:03}",
                                                       "proxyretryinterval": 600}.items())
                      for n in range(count)]
        members = wire.properties([("server", fake.address) for fake in self.fakes])
        for fake in self.fakes:
            fake.answers["clustered-servers"] = wire.set_answer(members, 1)

    def player(self, number):
        def serve(peer, uri):
            kind = uri.removeprefix("/demo/")
            self.done[number, kind] += 1
            if kind == "served":
                peer.send(wire.page(b"%d" % number))
            elif kind == "busy":
                peer.send(wire.word(wire.BUSY))
            elif kind == "protocol":
                peer.send(wire.word(77))
            else:  # before the first word the connector would ask again by itself
                peer.send(wire.status(200), wire.header("content-length", "9"))
                peer.send(wire.client(b"half") if kind == "broken" else b"")
            return kind in ("served", "busy")
        return serve


# Without guards another server's page follows half a page.
@pytest.mark.parametrize("guards,wrong", [("none", ()), ("all", ("broken",))])
def test_counts_are_those_of_clients_and_servers(site, guards, wrong):
    tally = Tally(site, 3)
    host = site.host(tally.fakes[0], page="", guards=guards)
    came = Counter()

    def ask(kind):
        page = host.fetch("/demo/" + kind)
        whole = page.status == 200 and page.complete
        came["served" if whole else "failed" if page.status >= 500 else "broken"] += 1
        if whole:
            came[int(page.body)] += 1

    ask("served")
    kinds = ["served"] * 40 + ["busy", "protocol", "reset", *wrong] * 6
    random.Random(5).shuffle(kinds)
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        list(pool.map(ask, kinds))
    tally.fakes[1].close()
    for _ in range(6):
        ask("served")

    requests = len(kinds) + 7  # the last may be counted when it has arrived
    wait_until(lambda: sum(status(host)["requests"].values()) == requests, "all are counted")
    told = read_forms(host)[0]
    assert came["served"] + came["failed"] + came["broken"] == requests
    assert told["requests"] == {"served": came["served"], "failed": came["failed"],
                                "broken": came["broken"], "declined": 0}
    assert [(m["pattern"], m["hits"]) for m in told["mappings"]] == [("/demo*", requests)]
    servers = sorted(told["servers"], key=lambda s: s["replicationId"])
    attempts = 0
    for number, server in enumerate(servers):
        done = {kind: tally.done[number, kind] for kind in {*kinds, "broken"}}
        refused = int(number == 1)
        assert server["served"] == came[number] == done["served"]
        assert {kind: count for kind, count in server["errors"].items() if count} == {
            kind: count for kind, count in {
                "refused": refused, "busy": done["busy"], "protocol": done["protocol"],
                "reset": done["reset"] + done["broken"]}.items() if count}
        assert server["requests"] == sum(done.values()) + refused
        assert server["state"] == ("down" if refused else "up")
        attempts += server["requests"]
    assert sum(server["takenOver"] for server in servers) == attempts - requests


HOSTILE = b"x.\"<i>'&\\{},<code>\xc3\xa9"
UNSEEN = [b"\xff", b"\xfe", b"\x01", b"\xed\xa0\x80"]  # what no form can show


def test_texts_of_servers_are_text_in_every_form(site):
    patterns = [HOSTILE + unseen for unseen in [b"", *UNSEEN]]
    server = site.fake()
    server.answers["server-props"] = wire.set_answer(wire.properties(
        server.props.items()).encode().replace(b"fake", HOSTILE.replace(b"\\", b"\\\\")))
    server.answers["servlet-mappings"] = wire.set_answer(
        b"".join(b"*." + pattern[2:] + b"=demo\n" for pattern in patterns))
    host = site.host(server, page="", events="true")
    for pattern in patterns:
        host.fetch("/" + "".join(f"%{byte:02x}" for byte in pattern))
    told, metrics, _, html = read_forms(host)
    shown = "*" + HOSTILE.decode()[1:]
    assert told["servers"][0]["replicationId"] == HOSTILE.decode()
    assert shown in [mapping["pattern"] for mapping in told["mappings"]]
    assert metrics["vesk_mapping_hits_total", ("mapping", shown)] == 1
    assert shown in ["".join(node.itertext()) for node in html.iter("code")]
    assert not [*html.iter("i")], "a text has become markup"


ASKED = [  # method, what stands behind the path, body, the answer's status and words
    ("GET", "/", None, 200, "Vesk connector"), ("GET", "?format=xml", None, 404, "format"),
    ("GET", "x", None, 404, ""),
    ("GET", "/explain?url=%01%ff%3cb%3e", None, 200, "explain"),
    ("GET", "/explain?format=json", None, 400, ""),
    ("PUT", "", b"x", 405, ""), ("DELETE", "", None, 405, ""),
    ("POST", "", b"token=TOKEN&server=SERVER&action=none", 400, ""),
    ("POST", "", b"token=TOKEN&server=10.0.0.1:1&action=drain", 400, ""),
    ("POST", "", b"token=" + b"0" * 32 + b"&server=SERVER&action=drain", 403, "token"),
    ("POST", "", b"server=SERVER&action=drain", 403, "token"),
    ("POST", "", b"token=TOKEN&server=SERVER&action=drain" + b" " * 1000, 413, "")]


def test_requests_that_the_page_takes_and_refuses(shared):
    host, server = shared.web, shared.server
    assert host.serves()
    for method, target, body, code, words in ASKED:
        if body:
            body = body.replace(b"TOKEN", token(host).encode())
            body = body.replace(b"SERVER", server.address.encode())
        page = host.fetch(PAGE + target, method, body=body)
        assert (page.status, words.encode() in page.body) == (code, True), (method, target, body)
        if code == 405:
            assert methods(page) == {"GET", "HEAD", "POST"}
        if code == 200:
            read_html(page.body)
    assert not status(host)["servers"][0]["draining"]
    with host.connect() as browser:
        for form in ("html", "json"):
            head = browser.fetch("HEAD", f"{PAGE}?format={form}")
            assert (head.status, head.body) == (200, b"") and int(head.header("content-length"))
            assert browser.fetch("GET", f"{PAGE}?format={form}").complete


def test_a_page_without_actions_has_none(site):
    host = site.host(site.backend(), page="")
    assert host.serves() and b"token" not in host.fetch(PAGE).body
    page = host.fetch(PAGE, "POST", body=b"token=&action=drain")
    assert (page.status, methods(page)) == (405, {"GET", "HEAD"})


@pytest.mark.parametrize("target", ["/demo/snoop", "/x/index.jsp", "/demox"])
def test_explanation_is_what_then_happens(web, target):
    assert web.serves()

    def hits():
        return {m["pattern"]: m["hits"] for m in status(web)["mappings"]}
    told = web.fetch(f"{PAGE}/explain?format=json&url={target}").json()
    read_html(web.fetch(f"{PAGE}/explain?url={target}").body)
    before = hits()
    answered = web.fetch(target).status
    taken = [pattern for pattern, count in hits().items() if count > before[pattern]]
    assert taken == ([told["winner"]] if told["winner"] else [])
    assert answered == (200 if taken else 404)


def test_drained_server_keeps_its_sessions_and_gets_nothing_new(site):
    first, second, third = site.cluster(3, buddies="s001,s002")
    host = site.host(second, page='actions="on"', events="true", guards="all")
    assert host.serves()
    own, orphan = session_of(host, first), session_of(host, third)
    assert act(host, "drain", first).status == 303
    assert {who(host) for _ in range(9)} == {"s002", "s003"} and who(host, own) == "s001"
    told, metrics, rows, _ = read_forms(host)
    assert [s["state"] for s in told["servers"] if s["draining"]] == ["draining"]
    assert sorted(row["status"] for row in rows) == ["DRAIN", "UP", "UP"]
    third.kill()
    assert who(host, orphan) == "s002", "the first buddy is passed over"
    explained = host.fetch(f"{PAGE}/explain?format=json&url=/demo/x").json()
    assert {attempt["server"] for attempt in explained["attempts"]} == {second.address}
    assert act(host, "ready", first).status == 303
    wait_until(lambda: who(host) == "s001", "it serves again", 5)
    host.wait_said(f"vesk server {first.address} DRAINED by 127.0.0.1",
                   f"vesk server {first.address} PUT BACK by 127.0.0.1")


def test_only_server_that_is_drained_serves_its_sessions_alone(site):
    server = site.backend()
    host = site.host(server, page='actions="on"')
    cookie = session_of(host, server)
    act(host, "drain", server)
    assert (who(host), who(host, cookie)) == (503, "s001")
    act(host, "ready", server)
    assert who(host) == "s001"


@pytest.mark.parametrize("guards", ["none", "all"])
def test_page_is_no_later_than_a_request(site, guards):
    server = site.fake(props={"mapcheck": 1}.items())
    host = site.host(server, page="", guards=guards, recvtimeout=4)
    assert host.fetch("/demo/").status == 200
    server.answers = dict.fromkeys(["server-props", "servlet-mappings", "clustered-servers"], b"")
    server.refuse()
    time.sleep(2.2)

    def timed(target):
        begin = time.monotonic()
        host.fetch(target)
        return time.monotonic() - begin
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        request = pool.submit(timed, "/demo/")
        time.sleep(0.3)
        page = timed(PAGE)
        assert page < (request.result() + 1 if guards == "none" else 1)
    assert (page > 1 and status(host)["tableLock"]["waits"] > 0) == (guards == "none")
