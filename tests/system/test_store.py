"""The store of servers: what stands in the file, and starting from it."""

import pytest
from processes import wait_until


def store_text(*servers):
    return "proxyservers=" + "".join(f"{server.address};" for server in servers)


def is_stored(host, *servers):
    """The next request may bring the news; the file then holds exactly this."""
    def written():
        assert host.serves()
        return host.store.exists() and host.store.read_text() == store_text(*servers)
    return wait_until(written, f"the store holds {store_text(*servers)}")


def test_store_follows_the_cluster(site):
    one, two, three = servers = site.cluster(3)
    host = site.host(one)
    assert is_stored(host, two, three)  # the bootstrap server is left out

    site.write_cluster(2, [one, three])
    assert is_stored(host, three, two)  # those that left stand behind

    four = site.backend("s004", cluster=site.cluster_file)
    site.write_cluster(3, [one, three, four])
    assert is_stored(host, three, four, two)

    site.write_cluster(4, [*servers, four])
    assert is_stored(host, two, three, four)


def test_host_starts_from_the_store_while_the_bootstrap_is_down(site):
    one, two, three = site.cluster(3)
    host = site.host(one)
    assert is_stored(host, two, three)
    host.stop()
    one.stop()

    host.start()
    turns = {host.fetch("/demo/snoop").json()["server"]["rep_id"] for _ in range(6)}
    assert turns == {"s002", "s003"}
    assert host.store.read_text() == store_text(two, three)


USELESS = {"none": None, "no servers": b"proxyservers=", "noise": b"\0\xff" * 50_000,
           "one long name": b"proxyservers=" + b"x" * 1_000_000,
           "only separators": b"proxyservers=" + b";" * 100_000}


@pytest.mark.parametrize("content", USELESS.values(), ids=USELESS.keys())
def test_useless_store_leaves_the_host_serving(site, content):
    server = site.backend()
    server.stop()
    if content is not None:
        (site.folder / "servers.store").write_bytes(content)
    host = site.host(server)
    (host.htdocs / "own.txt").write_text("own")
    assert host.fetch("/demo/snoop").status == 404
    assert host.fetch("/own.txt").body == b"own"
    assert host.said("Couldn't initialize from remote server, Vesk server(s) probably down.")
    server.start()
    assert host.fetch("/demo/snoop").status == 200


@pytest.mark.parametrize("store,message", [
    ("/", 'could not open "/": Is a directory'),
    ("/dev/full", "could not persist servers in /dev/full: No space left on device")])
def test_store_that_cannot_be_used_is_told(site, store, message):
    host = site.host(site.cluster(2)[0], serverstore=store)
    assert host.serves()
    host.wait_said(message)


def test_neither_store_nor_bootstrap(site):
    host = site.host(None, serverstore=None)
    assert host.fetch("/demo/snoop").status == 404
    host.wait_said("can't retrieve servers from server, no bootstrap specified.",
                   "can't load servers from serverstore, no serverstore specified.",
                   "Couldn't initialize from remote server, Vesk server(s) probably down.")
