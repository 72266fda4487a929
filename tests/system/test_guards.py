"""Guards on the whole road, each with and without: what browsers, servers and logs see."""

import fake_server as wire
import pytest
from httpd import HttpdHost
from processes import wait_until

both = pytest.mark.parametrize("guards", ["none", "all"])


@both
@pytest.mark.parametrize("client_names", [False, True])
def test_browser_is_nobody_whatever_it_sends(site, guards, client_names):
    host = site.host(site.backend(), guards=guards, client_names=client_names)
    forged = {"auth-user": "admin", "auth_type": "basic", "path-info": "/up", "keysize": "256"}
    words = {"REMOTE_USER": "auth-user", "AUTH_TYPE": "auth_type", "PATH_INFO": "path-info",
             "HTTPS_KEYSIZE": "keysize"}
    asked = "&".join(f"header={name}" for name in [*words, *forged])
    seen = host.fetch("/demo/snoop?" + asked, headers=[*forged.items(), ("X-IP", "x")]).json()
    came = {name.lower(): value for name, value in seen["headers"] if name not in ("host", "x-ip")}
    assert came == (forged if client_names else {}) and ["x-ip", "x"] in seen["headers"]
    answers = dict(seen["get_header"])
    for variable, name in words.items():
        expected = came.get(name, "") if guards == "none" else ""
        assert answers[variable] == expected
        assert seen["variables"].get(variable, expected) == expected
        assert answers[name] == came.get(name, ""), "the header under its own name"


def test_wrong_guards_are_refused_with_their_place_and_missing_ones_warned_of(site):
    host = site.host("127.0.0.1:1", guards="all")
    conf = host.path("conf")
    right = conf.read_text()
    place = str(right[:right.index("guards=")].count("\n") + 1)
    assert host.check()[0] == 0 and "without guards" not in host.check()[1]
    conf.write_text(right.replace('guards="all"', ""))
    status, said = host.check()
    assert status == 0 and said.count(f"{conf}:{place}: veskinit without guards: ") == 1
    conf.write_text(right.replace('guards="all"', 'guards="all,spam"'))
    status, said = host.check()
    assert status > 0 and place in said and 'guards: unknown name "spam"; known are' in said


def test_start_without_guards_is_warned_of(site):
    host = site.host("127.0.0.1:1")
    assert host.errors().count("veskinit without guards: ") == 1
    assert host.said("veskinit without guards: ") == isinstance(host, HttpdHost)


@both
def test_secrets_stay_out_of_the_log(site, guards):
    host = site.host(site.cluster(2)[0], verbose="true", guards=guards)
    secrets = [("Cookie", "JSESSIONID=zzzz0123456789; auth=SECRET"),
               ("Authorization", "Basic SECRET")]
    wait_until(lambda: host.fetch("/demo/snoop").json()["server"]["rep_id"] == "s002", "both serve")
    page = host.fetch("/demo/session?header=Authorization", headers=secrets)
    host.fetch("/demo/snoop;JSESSIONID=zzzz0123456789")
    log = "\n".join(host.messages())
    issued = page.header("set-cookie").split(";")[0].split("=")[1]
    found = [secret in log for secret in ("SECRET", "zzzz01234", issued)]
    assert found == [guards == "none"] * 3
    assert ("a host for serving session zzzz0123... not available" in log) == (guards == "all")


@both
def test_mapping_for_one_host_takes_its_requests_alone(site, guards):
    server = site.fake(mappings=[("//shop.example/only/*", "one"), ("/demo/*", "demo")])
    host = site.host(server, guards=guards)
    asked = [("/only/x", "shop.example"), ("/only/x", "SHOP.example"), ("/only/x", "other"),
             ("/demo/x", "other")]
    found = [host.fetch(target, headers=[("Host", name)]).status for target, name in asked]
    assert found == [200, 200, 404, 200]


@both
def test_answer_that_breaks_off_is_seen_as_broken(site, guards):
    host = site.host(site.backend(), guards=guards)
    for target, follows in (("die?at=body", "<H2>"), ("die?at=zero", "<H2>")):
        page = host.fetch("/demo/" + target)
        assert (page.status, page.complete) == (200, False)
        assert page.body.decode()[1000:1004] == (follows if guards == "none" else "")


def test_request_ends_at_its_time_whatever_its_server_says(site):
    host = site.host(site.backend(), requesttimeout=1)
    page = host.fetch("/demo/sleep?ms=30000")
    assert (page.status, page.reason) == (504, "Gateway Timeout")
    assert host.serves()


@both
@pytest.mark.parametrize("count", [1, 2])
def test_failed_attempt_leaves_nothing_behind(site, guards, count):
    """One server breaks off behind its headers: an error page follows, or the next server."""
    attempts = []

    def serve(peer, _):
        attempts.append(peer)
        if len(attempts) > 1:
            peer.send(wire.client(b"second"), wire.word(wire.FINISH))
            return True
        peer.send(wire.status(404, "First"), wire.header("content-encoding", "gzip"),
                  wire.header("content-length", "3"), wire.header("set-cookie", "first=1"))
        return False

    fakes = [site.fake(serve, props={"rep_id": f"f00{n}"}.items()) for n in range(count)]
    listed = wire.properties([("server", fake.address) for fake in fakes])
    for fake in fakes:
        fake.answers["clustered-servers"] = wire.set_answer(listed, 1 if count > 1 else None)
    page = site.host(fakes[0], guards=guards).fetch("/demo/")
    left = [page.header(name) for name in ("content-encoding", "content-length", "set-cookie")]
    body = b"second" if count > 1 else b"<H2>Server Error"
    if guards == "none":
        assert left == ["gzip", "3", "first=1"]
        assert (page.status, page.body) == (404 if count > 1 else 503, body[:3])
    else:
        assert left == [None] * 3
        assert (page.status, page.reason) == ((200, "OK") if count > 1 else (503, "Server Error"))
        assert page.body.startswith(body) and page.complete
