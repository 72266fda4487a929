"""Several servers: turns, sessions, failover, joining and leaving, under load."""

import time

import pytest
from load import Load
from processes import REDUCED, wait_until

LOAD_SECONDS = 4 if REDUCED else 10


def who(host):
    return host.fetch("/demo/snoop").json()["server"]["rep_id"]


class Visitor:
    """A browser with a session cookie."""

    def __init__(self, host, cookie=None):
        self.host = host
        self.cookie = cookie

    def visit(self):
        headers = [("Cookie", self.cookie)] if self.cookie else []
        response = self.host.fetch("/demo/session", headers=headers)
        assert response.status == 200
        if response.header("set-cookie"):
            self.cookie = response.header("set-cookie").split(";")[0]
        return response.json()


SHARES = [  # the algorithm, an option and its value for each server, and the turns
    ("ROUNDROBIN", "weight", (1, 1, 1), ("123" * 4, "231" * 4, "312" * 4)),
    ("ROUNDROBIN_WEIGHTED", "weight", (2, 1), ("112" * 4, "121" * 4, "211" * 4)),
    ("MIN", "load_value", (50, 7, 60), ("2" * 12,))]


@pytest.mark.parametrize("algorithm,option,values,turns", SHARES, ids=[row[0] for row in SHARES])
def test_algorithm_shares_the_turns(site, algorithm, option, values, turns):
    each = [{option: value} for value in values]
    host = site.host(site.cluster(len(each), each, algorithm=algorithm)[0])
    if option == "load_value":  # it comes behind the body: an answer may be read before it counts
        wait_until(lambda: [who(host) for _ in range(6)] == ["s002"] * 6, "the idlest serves")
    assert "".join(who(host)[-1] for _ in range(12)) in turns


def test_session_stays_with_its_server_and_moves_to_its_buddies(site):
    servers = site.cluster(4, buddies="s003,s002")
    host = site.host(servers[0])
    named = {server.rep_id: server for server in servers}
    visitor = Visitor(host)
    while visitor.visit()["server"]["rep_id"] != "s001":
        visitor.cookie = None
    cookie = visitor.cookie  # the one of s001: its buddies count
    assert [visitor.visit()["count"] for _ in range(6)] == [2, 3, 4, 5, 6, 7]
    for dies, takes_over in (("s001", "s003"), ("s003", "s002")):
        named[dies].kill()
        visitor.cookie = cookie
        for _ in range(3):
            assert visitor.visit()["server"]["rep_id"] == takes_over
    assert not host.said("Sticky session breakage")
    named["s002"].kill()
    assert Visitor(host, cookie).visit()["server"]["rep_id"] == "s004"
    host.wait_said("Sticky session breakage, a host for serving session " + cookie.split("=")[1])


@pytest.mark.parametrize("trouble", ["die?at=start", "die?at=word", "die?at=start&how=reset",
                                     "busy?at=start"])
def test_another_server_serves_what_one_refuses(site, trouble):
    host = site.host(site.cluster(3)[0])
    for _ in range(12):
        response = host.fetch(f"/demo/{trouble}&only=s002")
        assert response.status == 200 and b"s002" not in response.body


def test_nothing_is_lost_while_a_server_dies_and_returns(site):
    servers = site.cluster(3)
    host = site.host(servers[0])
    assert who(host)
    deadline = time.monotonic() + LOAD_SECONDS
    with Load(host) as load:
        while time.monotonic() < deadline and not load.faults:
            for server in (servers[1], servers[0]):
                served = load.served
                server.kill()
                wait_until(lambda: load.served > served + 50 or load.faults, "the others serve")
                server.start()
                back = time.monotonic()
                # A server that fails one request twice ends it: no request meets two kills.
                wait_until(lambda: load.renewed(back) and server.rep_id in load.servers(back) or
                           load.faults, "it serves again")
    assert not load.faults, (load.faults, host.messages()[-20:])


def test_servers_join_and_leave_under_load(site):
    servers = site.cluster(3)
    host = site.host(servers[0])
    fourth = site.backend("s004", cluster=site.cluster_file)
    changes = [[*servers, fourth], [servers[0], fourth], servers, [fourth, servers[1]]]
    assert who(host)
    with Load(host) as load:
        for sequence, members in enumerate(changes * (1 if REDUCED else 2), start=2):
            site.write_cluster(sequence, members)
            names = {server.rep_id for server in members}

            def settled():
                since = time.monotonic()
                wait_until(lambda: load.renewed(since) or load.faults, "answers for all")
                return load.servers(since) == names or load.faults
            wait_until(settled, f"only {names} serve")
    assert not load.faults, (load.faults, host.messages()[-20:])


def test_changed_mappings_are_picked_up(site):
    server = site.fake(props={"mapcheck": 1})
    host = site.host(server)
    assert host.serves("/demo/") and not host.serves("/more/")
    server.mappings.append(("/more/*", "more"))
    wait_until(lambda: host.serves("/more/"), "the new mapping")


def test_host_starts_from_the_store_while_the_bootstrap_is_down(site):
    one, two, three = site.cluster(3)
    stored = f"proxyservers={two.address};{three.address};"
    host = site.host(one)
    assert who(host) and host.store.read_text() == stored
    host.stop()
    one.stop()

    host.start()
    assert {who(host) for _ in range(6)} == {"s002", "s003"}
    assert host.store.read_text() == stored
