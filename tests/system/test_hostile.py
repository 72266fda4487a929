"""Servers and browsers that mean harm or have gone mad: the web server lives on."""

import fake_server as wire
import pytest
from fake_server import properties, set_answer, word

LONG = "x" * 100


def list_answer(names, sequence):
    return set_answer(properties([("server", name) for name in names]), sequence)


@pytest.mark.parametrize("others", [[f"127.0.0.1:{port}" for port in range(1, 200)],
                                    [LONG + ":1", "nonsense", "", "ITSELF"]],
                         ids=["200 servers", "long, bad and repeated names"])
def test_list_beyond_reason_does_no_harm(site, others):
    server = site.fake()
    names = [name.replace("ITSELF", server.address) for name in [server.address, *others]]
    server.answers["clustered-servers"] = list_answer(names, 3)
    host = site.host(server)
    for _ in range(3):
        assert host.fetch("/demo/").body == b"fake"
    assert len(others) > 4 or host.store.read_text() == "proxyservers="


def test_9000_mappings_are_cut_at_the_table(site):
    mappings = [(f"/m{n}", "demo") for n in range(9000)] + [("/last", "demo")]
    host = site.host(site.fake(mappings=mappings))
    assert host.fetch("/m0").body == b"fake"
    assert host.fetch("/m8191").body == b"fake"
    assert host.fetch("/last").status == 404
    assert host.said("propertyTable full when trying to add /last = demo")


SETS = {
    "empty lists": {"server-props": set_answer(""), "servlet-mappings": set_answer("")},
    "a length below zero": {"servlet-mappings": word(wire.PUT_PROPS) + word(-1)},
    "a length that nobody can hold": {"server-props": word(wire.PUT_PROPS) + word(0x7fffffff)},
    "an unknown command": {"clustered-servers": word(77)},
    "busy": {"server-props": word(wire.BUSY)},
    "nothing but bad names": {"clustered-servers": list_answer(
        [LONG, LONG + ":80", "127.0.0.1:" + "9" * 90, "127.0.0.1", ":", "", ":::"], 3)},
}


@pytest.mark.parametrize("answers", SETS.values(), ids=SETS.keys())
def test_bad_property_sets_leave_the_host_serving_files(site, answers):
    host = site.host(site.fake(answers=answers))
    (host.htdocs / "own.txt").write_text("own")
    for _ in range(3):
        assert host.fetch("/demo/").status in (200, 404)
        assert host.fetch("/own.txt").body == b"own"


def test_host_recovers_once_the_server_makes_sense(site):
    server = site.fake(answers={"clustered-servers": word(77)})
    host = site.host(server)
    assert host.fetch("/demo/").status == 404
    server.answers.clear()
    assert host.fetch("/demo/").body == b"fake"


@pytest.mark.parametrize("name,value", [("weight", "99999999999"), ("weight", -5), ("weight", "x"),
                                        ("algorithm", "NONSENSE"), ("rep_id", LONG)])
def test_mad_properties_of_a_server(site, name, value):
    assert site.host(site.fake(props={name: value})).serves("/demo/")


def test_servers_that_disagree_about_the_sequence(site):
    servers = [site.fake(), site.fake()]
    for number, server in enumerate(servers, start=5):
        server.answers["clustered-servers"] = list_answer([one.address for one in servers], number)
        server.serve = lambda peer, _, number=number: peer.send(
            word(wire.PUT_CLUSTER_SEQ) + word(number), wire.page(b"fake"))
    host = site.host(servers[0])
    assert all(host.serves("/demo/") for _ in range(10))
    assert all(server.requests for server in servers)


GET, POST = b"GET /demo/%s HTTP/1.1\r\n%s\r\n\r\n", b"POST /demo/ HTTP/1.1\r\nHost: a\r\n%s\r\n\r\n"
BROWSERS = {
    "noise": bytes(range(256)) * 20,
    "a header without end": b"GET /demo/ HTTP/1.1\r\nX: " + b"y" * 200_000,
    "a thousand headers": GET % (b"", b"X: y\r\n" * 1000),
    "a long path": GET % (b"a" * 100_000, b"Host: a"),
    "a length below zero": POST % b"Content-Length: -1",
    "a huge length": POST % (b"Content-Length: 9" + b"9" * 30) + b"x",
    "a bad chunk": POST % b"Transfer-Encoding: chunked" + b"zz\r\nx",
}


def read_body(peer, _):
    while peer.get_data(1000)[0] > 0:
        pass
    peer.send(wire.page(b"fake"))


@pytest.mark.parametrize("sent", BROWSERS.values(), ids=BROWSERS.keys())
def test_bad_browsers_leave_the_host_serving(played, sent):
    server, host = played
    server.serve = read_body
    with host.connect() as browser:
        try:
            browser.send(sent)
            browser.sock.shutdown(1)
            while browser.some():
                pass
        except OSError:
            pass
    assert host.fetch("/demo/").body == b"fake"
