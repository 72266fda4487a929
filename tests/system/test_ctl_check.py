"""vesk-ctl check and explain, on configurations of both web servers and living servers."""

import json
import os
import subprocess

import pytest
from conftest import Site
from fake_server import set_answer
from processes import BUILD, EmbeddedHost

GOOD = 'fn="veskinit" bootstrap="{bootstrap}" guards="all" events="true"'
FILTER, SERVE = 'fn="veskfilter"', 'type="vesk-internal/*" fn="veskservice"'


def ctl(*arguments, **variables):
    """Exit status and the JSON of standard output."""
    done = subprocess.run([BUILD / "bin/vesk-ctl", *map(str, arguments), "--json"], check=False,
                          capture_output=True, timeout=60, env={**os.environ, **variables})
    return done.returncode, json.loads(done.stdout or b"null")


def said(report):
    return [f'{one["severity"]} {one["where"]} {one["text"]}' for one in report["remarks"]]


def embedded(folder, init=GOOD, before="", **names):
    conf = folder / "vesk-host.conf"
    conf.write_text(f"""Listen 127.0.0.1:0
Init {init.format(**names)}
<Object name="default">
ObjectType {FILTER}
{before}Service {SERVE}
</Object>
""")
    return conf


def httpd(folder, init=GOOD, before="", extra="", **names):
    conf = folder / "httpd.conf"
    conf.write_text(f"""ThreadsPerChild 64
MaxRequestWorkers 64
LoadModule nsapi_module modules/mod_nsapi.so
ServerName shop.example:80
NSAPIInit {init.format(**names)}
NSAPIObjectType {FILTER}
{before}NSAPIService {SERVE}
{extra}
""")
    return conf


@pytest.fixture(scope="module")
def cluster(tmp_path_factory):
    made = Site(tmp_path_factory.mktemp("cluster"))
    made.servers = made.cluster(2, mapcheck=5, mapping=["/shop/*=a", "/shop=a", "//h/*=a", "*.do=a"])
    yield made
    made.close()


# What stands in httpd's file, and what is said of it; "NAME.inc" is beside it.
HTTPD_ROWS = [
    ('Define OFF /shop\n<Location "${OFF}">\nNSAPIEngine Off\n</Location>',
     ":10 mapping /shop* is never asked for: NSAPIEngine Off"),
    ("<IfModule mod_nsapi.c>\nInclude *.inc\n</IfModule>",
     "one.inc:2 mapping /shop* is never asked for: ProxyPass takes it"),
    ("<IfModule !mod_nsapi.c>\nInclude one.inc\n</IfModule>", None),
    ("<VirtualHost *:81>\nNSAPIService " + SERVE + "\n</VirtualHost>",
     ":9 the virtual host *:81 has lines of its own, and none of them runs veskfilter"),
    ("<VirtualHost *:82>\nNSAPIObjectType " + FILTER + "\n</VirtualHost>\n" +
     "<VirtualHost *:82>\nNSAPIService " + SERVE + "\nNSAPIObjectType " + FILTER + "\n</VirtualHost>",
     ":9 the virtual host *:82 has lines of its own, and none of them runs veskservice"),
    ("Include two.inc", ":8 there is no file"),
    ("IncludeOptional two.inc", None),
    ("Include empty.inc", None),
    ("Include self.part", "self.part:1 "),
    ("Define A xx\n" + "Define A ${A}${A}\n" * 19, ":27 the line is too long"),
    ("ThreadsPerChild 32", "up to 2 child processes"),
    ("ThreadsPerChild 32\nServerLimit 1", None),
    ("LoadModule mpm_prefork_module x.so\nMaxRequestWorkers 9", "up to 9 child processes"),
    ("NSAPIEngine Off\n<Location /shop>\nNSAPIEngine On\n</Location>", None),
    ("<Location /shop>\nNSAPIObjectType None\n</Location>", "no function looks for a type here"),
    ("<IfDefine X>\nInclude two.inc", ":8 <ifdefine> has no end"),
    ("NSAPIServices " + SERVE, ':8 unknown directive "nsapiservices"'),
    ("NSAPIService type=vesk-internal/*", ":8 the directive has no fn"),
]


@pytest.mark.parametrize("extra, expected", HTTPD_ROWS)
def test_lines_of_httpd_are_found_as_httpd_finds_them(cluster, tmp_path, extra, expected):
    (tmp_path / "one.inc").write_text("# a comment\nProxyPass \\\n  /shop http://a/\n")
    (tmp_path / "empty.inc").write_text("")
    (tmp_path / "self.part").write_text("Include self.part\n")
    conf = httpd(tmp_path, extra=extra, bootstrap=cluster.servers[0].address)
    found = [one for one in said(ctl("check", conf)[1])
             if "can never" not in one and "in a host" not in one]
    assert len(found) == (1 if expected else 0), found
    assert not expected or expected in found[0]


@pytest.mark.parametrize("kind", [embedded, httpd])
def test_each_mapping_that_is_never_reached_is_told(cluster, tmp_path, kind):
    init = GOOD + ' errorurl="/shop/down" ignoresuffixmap="True"'
    status, report = ctl("check", kind(tmp_path, init, bootstrap=cluster.servers[0].address))
    assert status == 2
    assert [one.split(" ", 2)[2] for one in said(report)] == [
        'mapping //h* takes no request: in a host a \'*\' is a plain character',
        "mapping /shop can never match: /shop* stands before it",
        "mapping *.do is left to the web server by ignoresuffixmap",
        "errorurl: /shop/down is under the mapping /shop*: a 503 leads to itself"]


def test_exit_status_and_strict(site, tmp_path):
    conf = embedded(tmp_path, bootstrap=site.backend(mapcheck=5).address)
    assert ctl("check", conf)[0] == 0
    conf = embedded(tmp_path, GOOD + ' verbose="yes"', bootstrap=site.programs[0].address)
    assert ctl("check", conf)[0] == 1
    assert ctl("check", "--strict", "--offline", conf)[0] == 2
    assert ctl("check", tmp_path / "none")[0] == 2


# What the second server of two is like, and what is said; the first is as it should be.
SERVER_ROWS = [
    ({"rep_id": "s001x"}, "error", 'has the rep_id "s001" of'),
    ({"rep_id": ""}, "warning", "has no rep_id, and sticky is on"),
    ({"mapcheck": "0"}, "warning", "mapcheck is 0: its mappings are asked for once"),
    ({"mapcheck": "9000"}, "warning", "are seen as late as that"),
    ({"algorithm": "FASTEST"}, "warning", 'algorithm "FASTEST" is none'),
    ({"sticky": "false"}, "warning", 'sticky is "false"'),
    ({"sequence": 4}, "warning", "has list number 4"),
    ({"list": ["10.9.8.7:1"]}, "warning", ": +10.9.8.7:1 -127.0.0.1:"),
    ({"list": [f"10.9.8.7:{n}" for n in range(1, 130)]}, "error", "lists 129 servers"),
    ({"mappings": [("/demo/*", "other")]}, "warning", 'maps /demo/* to "other"'),
    ({"mappings": []}, "warning", "has no mappings"),
]


@pytest.mark.parametrize("second, severity, expected", SERVER_ROWS)
def test_servers_that_disagree(site, tmp_path, second, severity, expected):
    base = {"mapcheck": 5, "rep_id": "s001"}
    own = {key: value for key, value in second.items() if key not in ("sequence", "list", "mappings")}
    servers = [site.fake(props=base), site.fake(props={**base, "rep_id": "s002", **own},
                                                mappings=second.get("mappings", [("/demo/*", "demo")]))]
    everybody = [one.address for one in servers]
    for server, sequence, names in ((servers[0], 3, everybody),
                                    (servers[1], second.get("sequence", 3),
                                     second.get("list", everybody))):
        lines = "".join(f"Server_{n}={name}\n" for n, name in enumerate(names, start=1))
        server.answers["clustered-servers"] = set_answer(lines, sequence)
    _, report = ctl("check", embedded(tmp_path, bootstrap=servers[0].address))
    matching = [one for one in said(report) if expected in one]
    assert len(matching) == 1 and matching[0].startswith(f"{severity} {servers[1].address}"), said(report)


def test_a_server_that_is_down_and_a_bootstrap_that_is_none(site, tmp_path):
    servers = site.cluster(2, mapcheck=5)
    store = tmp_path / "kept.store"
    store.write_text(f"proxyservers={servers[0].address};{servers[1].address};")
    servers[1].kill()
    init = GOOD + ' serverstore="{store}"'
    conf = httpd(tmp_path, init, bootstrap=servers[0].address, store=store)
    status, report = ctl("check", conf)
    assert status == 2
    assert [f"error {servers[1].address} gives no answer: refused"] == [
        one for one in said(report) if "store" not in one]
    conf = httpd(tmp_path, init, bootstrap=servers[1].address, store=store)
    status, explained = ctl("explain", conf, "/demo/x")
    assert (status, explained["from"], explained["absent"]) == (0, "store", [servers[1].address])
    assert store.read_text() == f"proxyservers={servers[0].address};{servers[1].address};"


# The URL, further arguments, the mapping that takes it, and the words of the attempts.
EXPLAIN_ROWS = [
    ("http://x/shop/cart", [], "/shop*", ["rotation", "rotation"]),
    ("/shop%2Fcart?a=/b", ["--cookie", "JSESSIONID=s002abcdTR*xyz"], "/shop*",
     ["session-owner", "session-buddy"]),
    ("/a/b.do;x=1", [], "*.do", ["rotation", "rotation"]),
    ("/a/b;x=.do", [], None, []),
    ("http://other/x", ["--host", "h*"], "//h*", ["rotation", "rotation"]),
]


@pytest.mark.parametrize("url, more, winner, attempts", EXPLAIN_ROWS)
def test_explain_says_who_serves(cluster, tmp_path, url, more, winner, attempts):
    conf = embedded(tmp_path, bootstrap=cluster.servers[1].address)
    status, explained = ctl("explain", conf, url, *more)
    assert status == (0 if winner else 1)
    assert explained["winner"] == winner
    assert [one["reason"] for one in explained.get("attempts", [])] == attempts
    names = {one.address for one in cluster.servers}
    assert {one["server"] for one in explained.get("attempts", [])} == (names if winner else set())


def test_explain_asks_a_running_web_server(site):
    servers = site.cluster(2, mapcheck=5)
    page = 'Service fn="veskservice" report="status" path="/vesk-status"'
    web = site.host(servers[0], EmbeddedHost, stages=(*EmbeddedHost.STAGES[:1], page,
                                                      *EmbeddedHost.STAGES[1:]), guards="all")
    cookie = "JSESSIONID=s002abcd; a=&%"
    assert web.fetch("/demo/snoop", headers=[("Cookie", cookie)]).status == 200
    servers[1].kill()
    assert web.fetch("/demo/snoop", headers=[("Cookie", cookie)]).status == 200
    url = "http://%s:%s/vesk-status" % web.address
    status, live = ctl("explain", "--from", url, "http://shop:80/demo/%61;x?y=/z", "--cookie", cookie)
    assert (status, live["winner"], live["session"]["id"]) == (0, "/demo*", "s002abcd")
    assert live["session"]["owner"] == servers[1].address
    assert [one["in_service"] for one in live["servers"]] == [True, False]
    assert [one["server"] for one in live["attempts"]] == [servers[0].address]
    assert ctl("explain", "--from", url, "/other")[0] == 1
    assert ctl("explain", "--from", url + "x", "/demo")[0] == 2
