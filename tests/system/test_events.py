"""Event lines: what an operator is told of servers that go, come back and change."""

import re

import pytest
from processes import wait_until


@pytest.mark.parametrize("guards", ["none", "all"])
@pytest.mark.parametrize("events", ["true", None])
def test_each_change_has_its_line_where_the_option_asks_for_it(site, guards, events):
    def serve():
        return {host.fetch("/demo/snoop").json()["server"]["rep_id"] for _ in range(6)}

    def served_by(server):
        wait_until(lambda: server.rep_id in serve(), f"{server.rep_id} serves")

    first, second = site.cluster(2, mapcheck=1)
    host = site.host(first, guards=guards, events=events)
    served_by(second)
    second.kill()
    assert serve() == {first.rep_id}
    second.options["mapping"] = ["/demo/*=demo", "/shop/*=demo"]
    second.start()
    served_by(second)
    wait_until(lambda: host.fetch("/shop/snoop").status == 200, "the mapping is known")
    third = site.backend("s003", cluster=site.cluster_file)
    site.write_cluster(2, [first, second, third])
    served_by(third)
    site.write_cluster(3, [first, third])
    wait_until(lambda: second.rep_id not in serve(), "it has left")
    for server in (first, second, third):
        server.kill()
    assert host.fetch("/demo/snoop;JSESSIONID=secret?secret").status == 503

    one, two, three = first.address, second.address, third.address
    expected = [
        f"vesk cluster 0 -> 1: +{one} +{two}", f"vesk cluster 1 -> NUMBER: +{three}",
        f" -> 3:ANY -{two}", f"vesk mappings of {two}: +/shop/* -*.jsp",
        f"vesk server {two} DOWN connect: refused (up NUMBERs, 1 of 2 left)",
        f"vesk server {two} UP after NUMBERs; NUMBER request",
        # As many as the thread that asks servers hasn't met before.
        "vesk request GET /demo/snoop failed: NUMBER attempt"]
    for line in expected if events == "true" else ():
        words = re.escape(line).replace("NUMBER", "[0-9]+").replace("ANY", ".*")
        wait_until(lambda w=words: host.fetch("/demo/") and any(
            re.search(w, message) for message in host.messages()), line)
    lines = [line for line in host.messages() if re.search(r"\] +vesk [a-z]+ ", line)]
    assert bool(lines) == (events == "true") and not any("secret" in line for line in lines)
