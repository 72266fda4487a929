"""What only Apache httpd has: its directives, TLS, virtual hosts, restarts, logs."""

import base64
import gzip
import hashlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import threading

import fake_server as wire
import pytest
from fake_server import word
from httpd import HttpdHost
from load import Load
from processes import BUILD, REDUCED, wait_until

HUGE = 1 << (26 if REDUCED else 30)
GROWTH = 16 << 20


def start(site, modules=(), extra="", backend=None, **options):
    return site.host(backend or site.backend(), HttpdHost, modules=modules, extra=extra, **options)


def run(*command):
    return subprocess.run(command, capture_output=True, check=True, timeout=60).stdout


# --- configuration -----------------------------------------------------------

BROKEN = [
    ('NSAPIObjectType fn="nosuch"', 'NSAPIObjectType: unknown function "nosuch"'),
    ('NSAPIInit fn="load-modules" shlib="no.so" funcs="f"', "{folder}/no.so"),
    ('NSAPIInit fn="veskinit"',
     '"veskinit" runs once in a process, and stands in {folder}/host.conf:'),
    ('NSAPINameTrans fn="document-root" root="nowhere"', 'root "{folder}/nowhere" is not a folder'),
    ('NSAPITLSFront from="10.0.0.0/40" https="X-Proto"', '"10.0.0.0/40" is no address'),
    ('NSAPITLSFront from="10.0.0.1"', '"from" and "https" are needed'),
    ('NSAPIErrorOverride On 404 200', '"200" is not the status of an error'),
    ('<Directory "/x">\nNSAPIFiles Off\n</Directory>', "NSAPIFiles cannot occur within <Directory> section"),
    ('<Files "x">\nNSAPIService fn="veskservice"\n</Files>', "cannot occur within <Files> section"),
]


def written(site, extra):
    host = HttpdHost(site.folder, extra=extra, bootstrap="127.0.0.1:1")
    host.address = ("127.0.0.1", 8080)
    (site.folder / "types").touch()
    host.path("conf").write_text(host.configuration())
    return host


@pytest.mark.parametrize("line,reason", BROKEN, ids=[reason[:40] for _, reason in BROKEN])
def test_bad_directive_stops_the_check(site, line, reason):
    host = written(site, "# wrong\n" + line)
    # Of a section, the line inside is wrong.
    number = host.path("conf").read_text().split("\n").index("# wrong") + 2 + line.startswith("<")
    status, output = host.check()
    assert status == 1
    assert f"Syntax error on line {number} of {host.path('conf')}:" in output
    assert reason.format(folder=site.folder) in output


@pytest.mark.parametrize("most,told", [(64, False), (128, True)])
def test_several_children_are_told_by_the_check(site, most, told):
    status, output = written(site, f"MaxRequestWorkers {most}").check()
    assert (status, "up to 2 child processes at once" in output) == (0, told)


def test_settings_of_the_package_need_only_lose_their_sign(site):
    host = written(site, "")
    shipped = re.sub("^#", "", (BUILD / "host/httpd/nsapi.conf").read_text(), flags=re.MULTILINE)
    shipped = re.sub('shlib=".*/', f'shlib="{BUILD}/lib/', shipped)
    shipped = shipped.replace("/var/lib/vesk", str(site.folder))
    host.path("conf").write_text(host.configuration().replace(
        host.plugin_lines(), f"LoadModule nsapi_module {BUILD}/lib/mod_nsapi.so\n" + shipped))
    assert 'NSAPIInit fn="veskinit"' in host.path("conf").read_text()
    assert host.check() == (0, "Syntax OK\n")


TWO_HOSTS = """<VirtualHost 127.0.0.1:{port}>
ServerName plain
</VirtualHost>
<VirtualHost 127.0.0.1:{port}>
ServerName vesk:81
ErrorLog {folder}/vesk.log
NSAPIObjectType fn="veskfilter"
NSAPIService type="vesk-internal/*" fn="veskservice"
</VirtualHost>"""


def test_virtual_hosts_have_stages_and_logs_of_their_own(site):
    host = start(site, extra=TWO_HOSTS, stages=(), traceflags="0")
    assert host.fetch("/demo/snoop", headers=[("Host", "plain")]).status == 404
    seen = host.fetch("/demo/snoop", headers=[("Host", "vesk")]).json()["variables"]
    assert (seen["SERVER_NAME"], seen["SERVER_PORT"]) == ("vesk", "81")
    host.fetch("/demo/die?at=start", headers=[("Host", "vesk")])
    lines = (site.folder / "vesk.log").read_text().splitlines()
    assert any(" warn veskNSAPI[" in line and "returning error page" in line for line in lines)
    assert not host.said("returning error page")
    assert sum(" notice veskNSAPI[init] Vesk 4.0" in line for line in host.messages()) == 1


def test_virtual_host_without_lines_of_its_own_takes_the_main_ones(site):
    stages = ('NameTrans fn="document-root" root="moved"', *HttpdHost.STAGES)
    (site.folder / "moved").mkdir()
    (site.folder / "moved" / "a.txt").write_text("moved")
    host = start(site, stages=stages, extra="""<Directory "{folder}/moved">
Require all granted
</Directory>
<VirtualHost 127.0.0.1:{port}>
ServerName other
</VirtualHost>""")
    assert host.fetch("/a.txt", headers=[("Host", "other")]).body == b"moved"
    seen = host.fetch("/demo/snoop?realpath=/a.txt", headers=[("Host", "other")]).json()
    assert seen["get_realpath"] == [["/a.txt", f"{site.folder}/moved/a.txt"]]
    assert sum("Vesk 4.0" in line for line in host.messages()) == 1


# --- the request -------------------------------------------------------------

AUTH = ("auth_basic", "authn_core", "authn_file", "authz_user")
ANN = ("Authorization", "Basic " + base64.b64encode(b"ann:secret").decode())


def write_user(site):
    digest = base64.b64encode(hashlib.sha1(b"secret").digest()).decode()
    (site.folder / "users").write_text(f"ann:{{SHA}}{digest}\n")


def test_authentication_comes_before_the_plugin(site):
    write_user(site)
    host = start(site, AUTH, """
<Location "/demo">
AuthType Basic
AuthName demo
AuthUserFile "{folder}/users"
Require valid-user
</Location>""", verbose="true")
    assert host.fetch("/demo/snoop").status == 401
    assert not host.said("filterRequest")
    seen = host.fetch("/demo/snoop", headers=[ANN]).json()["variables"]
    assert (seen["REMOTE_USER"], seen["AUTH_TYPE"]) == ("ann", "Basic")


PATHS = """Alias /other "{folder}/elsewhere"
<Directory "{folder}/elsewhere">
Require all granted
</Directory>
RequestHeader set X-Set early
<Location "/demo/late">
RequestHeader set X-Set late
</Location>"""


def test_paths_and_headers_are_those_of_httpd(site):
    host = start(site, ("headers",), PATHS, backend=site.backend(mapping=["/*=all"]))
    (site.folder / "elsewhere").mkdir()
    (host.htdocs / "script").write_text("a file")
    (host.htdocs / "demo").mkdir()
    query = "realpath=/other/a%2520b%3Fc&realpath=/other/&realpath=x"
    seen = host.fetch("/script/snoop?" + query).json()
    assert seen["variables"]["PATH_INFO"] == "/snoop"
    assert seen["variables"]["PATH_TRANSLATED"] == f"{host.htdocs}/snoop"
    assert [path for _, path in seen["get_realpath"]] == [
        f"{site.folder}/elsewhere/a%20b?c", f"{site.folder}/elsewhere/", ""]
    assert ["x-set", "late"] in host.fetch("/demo/late/snoop").json()["headers"]
    assert host.fetch("/demo").status != 301  # no way round by httpd's folder


PLACES = """<Location "/demo">
NSAPIFiles Off
</Location>
<Location "/demo/static">
NSAPIEngine Off
NSAPIFiles On
</Location>
<Location "/demo/shut">
Require all denied
</Location>
<Location "/demo/known">
AuthType Basic
AuthName known
AuthUserFile users
Require valid-user
</Location>
<Directory "{folder}/htdocs/demo/folder">
Require all denied
</Directory>"""


def test_places_may_be_httpds_alone_or_without_files(site):
    for folder in ("static", "folder"):
        (site.folder / "htdocs" / "demo" / folder).mkdir(parents=True)
        for name in ("a.txt", "index.html"):
            (site.folder / "htdocs" / "demo" / folder / name).write_text("file")
    backend, long = site.backend(), "/demo/" + "x" * 300
    write_user(site)
    plain = start(site, AUTH, PLACES.replace("NSAPIFiles Off", ""), backend)
    seen = {target: plain.fetch(target).status for target in (long, "/demo/folder/snoop")}
    assert seen == {long: 403, "/demo/folder/snoop": 403}
    plain.stop()
    host = start(site, AUTH, PLACES, backend)
    assert host.fetch("/demo/snoop").json()["variables"]["SCRIPT_NAME"] == "/demo/snoop"
    assert host.fetch("/demo/static/a.txt").body == b"file"
    assert host.fetch("/demo/static/none").status == 404
    assert host.fetch("/demo/shut/snoop").status == 403
    assert host.fetch("/demo/known/snoop").status == 401
    assert host.fetch("/demo/known/snoop", headers=[ANN]).status not in (401, 403)
    for target in (long, "/demo/folder/a.txt", "/demo/folder/"):  # a server's pages, and no file
        assert b"file" != host.fetch(target).body and host.fetch(target).status != 403


LINES = """<Location "/demo/read">
NSAPIService type="vesk-internal/*" method="(GET|HEAD)" fn="veskservice"
</Location>
<LocationMatch "^/(typed|demo/typed)">
NSAPIObjectType fn="force-type" type="vesk-internal/ext"
</LocationMatch>
<Location "/typed/own">
NSAPIObjectType none
</Location>
<Location "/any">
NSAPIService fn="veskservice"
Require local
</Location>"""


def test_places_have_lines_of_their_own(site):
    host = start(site, ("authz_host",), LINES, verbose="true")
    (host.htdocs / "typed").mkdir()
    (host.htdocs / "typed" / "own").write_text("file")
    seen = [host.fetch(f"/demo/{place}/snoop", method).status
            for place in ("read", "more") for method in ("GET", "POST")]
    assert seen == [200, 404, 200, 200]  # a place's own lines, in place of the server's
    # The lines of the other stage are those around it, and the inner place's count.
    assert [host.fetch(path).status for path in ("/demo/typed/snoop", "/typed/x")] == [503, 503]
    assert host.fetch("/typed/own").body == b"file"
    before = sum("veskservice: [enter]" in line for line in host.messages())
    assert host.fetch("/any").status == 404  # no type, and yet the function has been asked
    assert sum("veskservice: [enter]" in line for line in host.messages()) == before + 1


TYPED = """AddType vesk-internal/ext .jsp
AddCharset utf-8 .jsp
<Location "/demo">
ForceType vesk-internal/ext
</Location>
<Location "/off">
NSAPIEngine Off
</Location>
<Location "/none">
NSAPIService none
</Location>
<Location "/text">
NSAPIObjectType fn="force-type" type="text/plain"
</Location>
<Location "/mine">
ForceType vesk-internal/mine
</Location>
<Directory "{folder}/htdocs/page">
Options +Includes +Indexes +MultiViews
SetOutputFilter INCLUDES
</Directory>"""


def test_what_is_typed_for_the_plugin_is_never_a_file(site):
    for folder in ("", "off", "none", "text", "mine", "page"):
        (site.folder / "htdocs" / folder).mkdir(parents=True, exist_ok=True)
        (site.folder / "htdocs" / folder / "index.jsp").write_text("source")
    (site.folder / "htdocs" / "mine" / "plain").write_text("source")
    (site.folder / "htdocs" / "page" / "a.html").write_text('<!--#include file="index.jsp" -->')
    modules = ("filter", "include", "negotiation", "status")
    host = start(site, modules, TYPED, "127.0.0.1:1")
    expected = {"/index.jsp": 503, "/": 503, "/text/": 503, "/page/index": 503, "/demo/any": 503,
                "/off/index.jsp": 404, "/none/index.jsp": 404}
    assert {path: host.fetch(path).status for path in expected} == expected
    assert b"source" not in host.fetch("/page/a.html").body
    host.stop()
    host = start(site, modules, TYPED)
    assert b"s001" in host.fetch("/demo/").body
    assert host.fetch("/mine/plain").status == 404  # the connector declines it
    assert host.said("no Service line has taken /mine/plain")


MAPPED = """NSAPIMapping servlet
<Location "/demo/session">
Require all denied
</Location>
<LocationMatch "^/demo/exactly$">
Require all denied
</LocationMatch>
ProxyPass "/away" "http://127.0.0.1:{port}/demo"
RewriteEngine on
RewriteRule "^/old(;[^/]*)$" "/demo/snoop$1" [PT]"""


def test_paths_are_judged_without_their_parameters(site):
    stages = ('NameTrans fn="document-root" root="htdocs"', *HttpdHost.STAGES)
    (site.folder / "htdocs" / "app").mkdir(parents=True)
    (site.folder / "htdocs" / "app" / "index.jsp").write_text("source")
    host = start(site, ("rewrite", "proxy", "proxy_http"), MAPPED, stages=stages)
    paths = ("/session;x", "/session%3Bx", "/session;x/y", ";a/session", "/;/session",
             "/a/..;b/session", "/;x/;y/session", "/exactly;x", "/exactly%3bx;y")
    assert {path: host.fetch("/demo" + path).status for path in paths} == dict.fromkeys(paths, 403)
    for path in ("/demo/snoop;x", "/demo/snoop%3Bx", "/old;x", "/away/snoop;x"):
        assert host.fetch(path).json()["variables"]["SCRIPT_NAME"] == "/demo/snoop;x"
    assert b"/app/index.jsp;s=1" in host.fetch("/app/;s=1").body


def test_body_limit_is_httpds(site):
    host = start(site, extra="LimitRequestBody 1000")
    with host.connect() as browser:
        browser.send(b"POST /demo/upload HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n")
        browser.send(b"3e9\r\n" + b"x" * 1001 + b"\r\n0\r\n\r\n")
        assert browser.read().status == 413
    assert host.fetch("/demo/upload", "POST", body=b"x" * 1001).status == 413
    assert host.fetch("/demo/upload", "POST", body=b"x" * 1000).json()["size"] == 1000


OTHERS = """RewriteEngine On
RewriteRule ^/old/(.*) /demo/$1 [PT]
RewriteRule ^/plain/(.*) /demo/$1
<LocationMatch "^/demo/(taken|status)$">
SetHandler server-status
</LocationMatch>
<Location "/demo/status">
NSAPIEngine Off
</Location>"""


def test_rules_and_handlers_of_other_modules(site):
    host = start(site, ("rewrite", "status"), OTHERS)
    assert host.fetch("/old/snoop").json()["variables"]["SCRIPT_NAME"] == "/demo/snoop"
    assert host.fetch("/plain/snoop").status == 404
    pages = [host.fetch(f"/demo/{name}?auto").body for name in ("status", "taken")]
    assert [b"ServerVersion" in page for page in pages] == [True, False]


# --- the response ------------------------------------------------------------

def test_filters_and_access_log_see_true_figures(site):
    host = start(site, ("deflate", "filter", "include"), """
CustomLog "{folder}/access.log" "%m %U %>s %b"
<Location "/demo/index.jsp">
SetOutputFilter DEFLATE
</Location>
<Location "/page.html">
SetOutputFilter INCLUDES
Options +Includes
</Location>""")
    (host.htdocs / "page.html").write_text('[<!--#include virtual="/demo/bytes?n=3" -->]')
    packed = host.fetch("/demo/index.jsp", headers=[("Accept-Encoding", "gzip")])
    assert packed.header("content-encoding") == "gzip" and packed.body.startswith(b"\x1f\x8b")
    assert host.fetch("/page.html").body == b"[\x00\x01\x02]"
    host.fetch("/demo/bytes?n=12345")
    host.fetch("/demo/status?code=503")
    expected = {f"GET /demo/index.jsp 200 {len(packed.body)}", "GET /page.html 200 5",
                "GET /demo/bytes 200 12345"}
    # A line is written once its answer has left, on the thread that served it.
    def logged():
        lines = set((site.folder / "access.log").read_text().splitlines())
        return len(lines) == 4 and lines
    lines = wait_until(logged, "four lines in the access log")
    assert lines > expected
    assert (lines - expected).pop().startswith("GET /demo/status 503 ")


def test_error_page_is_the_administrators(site):
    stages = ('ObjectType fn="force-type" type="vesk-internal/ext"', HttpdHost.STAGES[1])
    host = start(site, extra='ErrorDocument 503 "try later"', stages=stages)
    response = host.fetch("/any")
    assert (response.status, response.body) == (503, b"try later")
    assert response.reason == ("Could not connect to Vesk server or invalid web server "
                               "configuration for Vesk.")


ERRORS = """ErrorDocument 404 "not here"
ErrorDocument 503 /sorry.txt
<Location "/demo/plain">
ErrorDocument 503 default
</Location>
<Location "/demo/all">
NSAPIErrorOverride On
</Location>
<Location "/demo/all/some">
NSAPIErrorOverride On 410 503
</Location>
<Location "/demo/all/some/none">
NSAPIErrorOverride Off
</Location>"""


def test_error_pages_of_httpd_stand_in_for_those_of_servers(site):
    def serve(peer, uri):
        if uri.endswith("/broken"):
            return peer.send(wire.word(77))
        status = int(uri.rsplit("/", 1)[-1])
        return peer.send(wire.status(status), wire.header("etag", '"1"'), wire.header("set-cookie", "a=1"),
                         wire.client(b"a server's page"), wire.word(wire.FINISH))
    host = start(site, extra=ERRORS, backend=site.fake(serve), guards="all")
    (host.htdocs / "sorry.txt").write_text("sorry")
    bodies = {"404": b"a server's page", "503": b"a server's page", "broken": b"sorry",
              "all/404": b"not here", "all/503": b"sorry", "all/200": b"a server's page",
              "all/some/404": b"a server's page", "all/some/503": b"sorry",
              "all/some/none/503": b"a server's page", "all/some/none/broken": b"sorry"}
    seen = {path: host.fetch("/demo/" + path) for path in bodies}
    assert {path: answer.body for path, answer in seen.items()} == bodies
    assert [seen[path].status for path in ("all/503", "broken")] == [503, 503]
    assert (seen["all/404"].status, seen["all/404"].reason) == (404, "Not Found")
    assert (seen["all/404"].header("set-cookie"), seen["all/404"].header("etag")) == ("a=1", None)
    assert b"<H2" in host.fetch("/demo/plain/broken").body
    with host.connect() as browser:  # neither connection suffers
        assert [browser.fetch("GET", f"/demo/all/{status}").status for status in (404, 200)] == [404, 200]


# --- TLS and HTTP/2 ----------------------------------------------------------

TLS = """<VirtualHost 127.0.0.1:{port}>
SSLEngine on
SSLCertificateFile "{folder}/server.pem"
SSLCACertificateFile "{folder}/client.pem"
SSLVerifyClient optional
Protocols h2 http/1.1
</VirtualHost>"""


@pytest.fixture
def secure(site):
    for name in ("server", "client"):
        file = f"{site.folder}/{name}.pem"
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
            "-nodes", "-days", "2", "-subj", f"/CN={name}", "-keyout", file + ".key", "-out", file)
        with open(file, "a", encoding="ascii") as both:
            both.write(pathlib.Path(file + ".key").read_text())
    return start(site, ("socache_shmcb", "ssl", "http2"), TLS)


def attributes(page):
    return {one["name"]: one["text"] for one in page["attributes"]}


def curl(host, target, *options):
    done = run("curl", "-sSk", *options, "-w", "\n%{http_version} %{http_code}",
               f"https://127.0.0.1:{host.address[1]}{target}")
    body, status = done.rsplit(b"\n", 1)
    return body, status.decode()


@pytest.mark.parametrize("option,version,known", [
    ("--http2", "2", True), ("--http1.1", "1.1", True), ("--http1.1", "1.1", False)])
def test_tls_connection_is_known_to_the_server(secure, option, version, known):
    client = secure.folder / "client.pem"
    body, status = curl(secure, "/demo/snoop", option, *(["--cert", client] if known else []))
    end = "-----END CERTIFICATE-----"
    expected = {"javax.servlet.request.key_size": "256",
                "SSL_CLIENT_VERIFY": "SUCCESS" if known else "NONE"}
    if known:
        expected["javax.servlet.request.X509Certificate"] = (
            client.read_text().split(end)[0] + end + "\n\n")
    seen = json.loads(body)
    assert status == f"{version} 200"
    told = attributes(seen)
    assert told.pop("javax.servlet.request.cipher_suite").startswith("TLS_")
    assert told.pop("javax.servlet.request.ssl_session_id", "a1").isalnum()  # if it has one
    assert told == expected
    assert seen["variables"]["SERVER_PORT_SECURE"] == "1"
    assert seen["variables"]["SERVER_PROTOCOL"].startswith("HTTP/" + version)


def test_http2_carries_bodies_both_ways(secure):
    sent = secure.folder / "sent"
    sent.write_bytes(os.urandom(3_000_000))
    body, status = curl(secure, "/demo/echo", "--http2", "--data-binary", f"@{sent}")
    assert status == "2 200" and body == sent.read_bytes()
    body, status = curl(secure, "/demo/stream?blocks=20&size=5000&ms=1", "--http2")
    assert status == "2 200" and len(body) == 100_000
    assert curl(secure, "/demo/status?code=204", "--http2")[1] == "2 204"


def cut(peer, uri):
    """Plays half a page and then nonsense, but for /demo/whole."""
    head = wire.header("content-length", "9999") if uri == "/demo/counted" else b""
    peer.send(wire.status(200), head, wire.client(b"half a page " * 100),
              wire.word(wire.FINISH if uri == "/demo/whole" else 77))


# What curl says of a body that ends too early, and of a stream that was reset.
@pytest.mark.parametrize("packing", [(), ("--compressed",)])
@pytest.mark.parametrize("version,broken", [("--http1.1", 18), ("--http2-prior-knowledge", 92)])
def test_cut_page_never_arrives_as_whole(site, packing, version, broken):
    host = start(site, ("deflate", "filter", "http2"), "SetOutputFilter DEFLATE\n"
                 "Protocols h2c http/1.1", backend=site.fake(cut), guards="all")
    page = f"http://127.0.0.1:{host.address[1]}/demo/"
    ends = [subprocess.run(["curl", "-s", version, *packing, "-o", "/dev/null", page + name],
                           check=False, timeout=60).returncode
            for name in ("whole", "uncounted", "counted", "whole")]
    assert ends == [0, broken, broken, 0]


# --- processes ---------------------------------------------------------------

def test_graceful_restart_loses_no_request(site):
    host = start(site)
    with Load(host, keep=False) as load:  # httpd may close an idle connection
        for _ in range(3):
            old, served = host.children(), load.served
            host.signal(signal.SIGUSR1)
            wait_until(lambda: not set(old) & set(host.children()), "the old child has ended")
            wait_until(lambda: load.served > served + 200 or load.faults, "it is served")
    assert load.faults == []
    assert sum("Vesk 4.0" in line for line in host.messages()) == 4


def test_status_page_counts_and_drains_for_all_children(site):
    first, second = site.cluster(2)
    host = start(site, backend=first, page='actions="on"', guards="all", extra="""ServerLimit 12
StartServers 3\nThreadsPerChild 4\nMaxRequestWorkers 12\nMinSpareThreads 12\nMaxSpareThreads 12""")

    def asked(count):
        return [host.fetch("/demo/session").json()["server"]["rep_id"] for _ in range(count)]

    def told_by(children, requests):
        """What the page says, once each of so many children says it."""
        seen = {}
        def all_agree():
            told = host.fetch("/vesk-status?format=json").json()
            assert told["processes"] <= children and told["countsOfAllProcesses"]
            if told["requests"]["served"] == requests:
                seen[told["pid"]] = told
            return len(seen) == children
        wait_until(all_agree, f"{children} children know of {requests} requests")
        assert set(seen) == set(host.children())
        return [(s["state"], s["served"]) for s in seen.popitem()[1]["servers"]]

    wait_until(lambda: len(host.children()) == 3, "the children are there")
    came = asked(40)
    assert told_by(3, 40) == [("up", came.count("s001")), ("up", came.count("s002"))]
    token = re.search(r'name="token" value="(\w+)"', host.fetch("/vesk-status").body.decode())[1]
    form = f"token={token}&server={second.address}&action=drain"
    assert host.fetch("/vesk-status", "POST", body=form.encode()).status == 303
    assert set(asked(20)) == {"s001"}
    old = host.children()
    host.signal(signal.SIGUSR1)
    wait_until(lambda: len(host.children()) == 3 and not {*old} & {*host.children()}, "all are new")
    assert set(asked(20)) == {"s001"}
    assert told_by(3, 80) == [("up", came.count("s001") + 40), ("draining", came.count("s002"))]


def test_site_is_served_while_a_child_ends_its_requests(site):
    released = threading.Event()

    def serve(peer, uri):
        if uri == "/demo/slow":
            peer.send(wire.status(200), wire.client(b"begun"))
            released.wait(60)
            peer.send(wire.client(b" ended"), word(wire.FINISH))
        else:
            peer.send(wire.page(b"fake"))
    server = site.fake(serve)
    host = start(site, backend=server)
    with host.connect() as browser:
        browser.ask("GET", "/demo/slow")
        begun = browser.some()
        for _ in range(2):
            known = set(host.children())
            host.signal(signal.SIGUSR1)
            wait_until(lambda: set(host.children()) - known, "a new child has begun", 10)
            assert host.fetch("/demo/quick").body == b"fake"
        released.set()
        while b" ended" not in begun:
            begun += browser.some() or pytest.fail("broke off")


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGHUP])
def test_callback_runs_once_the_requests_of_the_child_have_ended(site, number):
    host = start(site, verbose="true")
    with host.connect() as browser:
        browser.ask("GET", "/demo/stream?blocks=10&size=100&ms=50")
        host.wait_said("PROXY_PUT_CLIENT <-")
        host.signal(number)
        host.wait_said("Vesk connector exiting")
        lines = [line.split("] ", 1)[-1] for line in host.messages() if "veskNSAPI[" in line]
        end = next(n for n, line in enumerate(lines) if "Vesk connector exiting" in line)
        assert any("veskservice[exit]" in line for line in lines[:end])
        if number == signal.SIGUSR1:
            assert len(browser.read().body) == 1000
    wait_until(host.serves, "the next child serves")


def resident(host):
    status = "".join(pathlib.Path(f"/proc/{pid}/status").read_text() for pid in host.children())
    lines = [line for line in status.splitlines() if line.startswith("VmRSS:")]
    return sum(int(line.split()[1]) << 10 for line in lines)


def test_huge_bodies_need_no_memory(site):
    host = start(site)
    host.fetch("/demo/bytes?n=1000000")
    host.fetch("/demo/upload", "POST", body=bytes(1_000_000))
    before = resident(host)
    with host.connect() as browser:
        browser.ask("GET", f"/demo/bytes?n={HUGE}")
        browser.head()
        have = 0
        while have < HUGE:
            have += len(browser.some(1 << 20)) or pytest.fail("broke off")
    assert have == HUGE and resident(host) - before < GROWTH
    with host.connect() as browser:
        browser.send(b"POST /demo/upload HTTP/1.1\r\nHost: a\r\nContent-Length: %d\r\n\r\n" % HUGE)
        for _ in range(HUGE >> 20):
            browser.send(bytes(1 << 20))
        assert browser.read().json()["size"] == HUGE
    assert resident(host) - before < GROWTH


# --- what stands before and behind the plug-in ---------------------------------

def folded(peer, _):
    peer.send(wire.status(200), wire.header("X-Long", "one,\r\n\ttwo\r\n  three"),
              wire.header("X-Two", "one\r\nX-Split: two"), wire.client(b"page"), word(wire.FINISH))


def test_header_of_several_lines_leaves_on_one(site):
    seen = start(site, backend=site.fake(folded)).fetch("/demo/")
    assert (seen.all("x-long"), seen.all("x-two"), seen.body) == (["one, two three"], [], b"page")
    assert not seen.all("x-split")


def missing(peer, _):
    peer.send(wire.status(404, "Not Found"), wire.header("Connection", "close"),
              wire.client(b"no such page"), word(wire.FINISH))


def test_included_page_leaves_the_connection_alone(site):
    host = start(site, ("filter", "include"), """<Location "/page.html">
SetOutputFilter INCLUDES
Options +Includes
</Location>""", site.fake(missing))
    (host.htdocs / "page.html").write_text('[<!--#include virtual="/demo/none" -->]')
    with host.connect() as browser:
        for _ in range(2):
            assert browser.fetch("GET", "/page.html").body == b"[no such page]"


def test_unpacked_body_arrives_whole_under_its_own_length(site):
    host = start(site, ("deflate", "filter"), "SetInputFilter DEFLATE")
    packing = [("Content-Encoding", "gzip")]
    for body in (os.urandom(3000) * 2, os.urandom(1500) * 200):  # kept in memory, and in a file
        packed = gzip.compress(body)
        seen = host.fetch("/demo/upload", "POST", packing, packed).json()
        assert (seen["size"], seen["sha256"]) == (len(body), hashlib.sha256(body).hexdigest())
        told = dict(host.fetch("/demo/snoop", "POST", packing, packed).json()["headers"])
        assert told["content-length"] == str(len(body)) and "content-encoding" not in told
    assert host.fetch("/demo/upload", "POST", packing, packed[:-9]).status == 400


@pytest.mark.parametrize("guards", ["all", None])  # without, an error stands behind the part
def test_page_that_broke_off_is_not_stored(site, guards):
    server = site.fake(cut)
    (site.folder / "cache").mkdir()
    host = start(site, ("cache", "cache_disk"), """CacheEnable disk /demo
CacheRoot "{folder}/cache"
CacheIgnoreNoLastMod On""", server, guards=guards)
    for name in ("whole", "counted", "uncounted") * 2:
        host.fetch("/demo/" + name)
    assert sorted(server.requests) == sorted(
        ["/demo/whole"] + ["/demo/counted", "/demo/uncounted"] * 2)


FRONT = """NSAPITLSFront from="{peers}" https="X-Forwarded-Proto" cipher="X-Cipher" \\
  keysize="X-Key-Size" session="X-Session" certificate="X-Cert" verdict="X-Verdict"
NSAPIEnvVar COLOR ABSENT
RewriteEngine On
RewriteRule ^/nice/(.*)$ /demo/$1 [PT,E=COLOR:red]"""
TOLD = {"X-Cipher": ("javax.servlet.request.cipher_suite", "TLS_AES_256_GCM_SHA384"),
        "X-Key-Size": ("javax.servlet.request.key_size", "256"),
        "X-Session": ("javax.servlet.request.ssl_session_id", "0a1b"),
        "X-Verdict": ("SSL_CLIENT_VERIFY", "SUCCESS")}
# The text of a certificate as three kinds of fronts write it.
CERTIFICATES = ["-----BEGIN CERTIFICATE----- TUlJ +/== -----END CERTIFICATE----- ", "TUlJ+/==",
                "-----BEGIN%20CERTIFICATE-----%0ATUlJ%2B/%3D=%0A-----END%20CERTIFICATE-----%0A"]


@pytest.mark.parametrize("peers,trusted", [("10.0.0.1 127.0.0.0/8", True), ("10.0.0.1", False)])
def test_front_tells_of_tls_where_it_is_one(site, peers, trusted):
    host = start(site, ("rewrite",), FRONT.replace("{peers}", peers))
    headers = [(name, value) for name, (_, value) in TOLD.items()]
    expected = {"COLOR": "red", **(dict(TOLD.values()) if trusted else {})}
    for certificate in CERTIFICATES:
        sent = [("X-Forwarded-Proto", "https"), ("X-Cert", certificate), *headers]
        page = host.fetch("/nice/snoop", headers=sent).json()
        told = attributes(page)
        pem = told.pop("javax.servlet.request.X509Certificate", "")
        assert pem.split("\n")[1:2] == (["TUlJ+/=="] if trusted else [])
        assert told == expected
        assert page["variables"]["SERVER_PORT_SECURE"] == ("1" if trusted else "0")
        assert any(name.startswith("x-") for name, _ in page["headers"]) == trusted
    told = [("X-Forwarded-Proto", "http"), *headers]
    page = host.fetch("/nice/snoop", headers=told).json()
    assert (page["variables"]["SERVER_PORT_SECURE"], attributes(page)) == ("0", {"COLOR": "red"})


def test_server_gets_at_once_what_has_come_of_a_body(site):
    sent, counts = threading.Event(), []

    def serve(peer, _):
        sent.wait(60)
        counts.append(peer.get_data(40960)[0])
        peer.send(wire.page(b"read"))
    host = start(site, backend=site.fake(serve))
    with host.connect() as browser:
        browser.ask("POST", "/demo/", body=bytes(40960))
        sent.set()
        assert browser.read().body == b"read"
    assert counts == [40960]


def test_part_of_a_body_without_length_is_no_upload(site):
    with start(site).connect() as browser:
        browser.send(b"POST /demo/upload HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n")
        browser.send(b"5\r\nhello\r\n")
        browser.sock.shutdown(socket.SHUT_WR)
        assert browser.read().status == 400
