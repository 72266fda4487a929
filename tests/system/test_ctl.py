"""vesk-ctl against servers that live, are stopped or misbehave, and against what is none."""

import hashlib
import json
import os
import pty
import signal
import socket
import ssl
import subprocess
import termios
import threading

import pytest
from conftest import Site
from fake_server import BUSY, FINISH, PUT_PROPS, client, status, text, word
from processes import BUILD, Host, wait_until


def ctl(*arguments, **options):
    """Exit status, standard output and standard error."""
    done = subprocess.run([BUILD / "bin/vesk-ctl", *map(str, arguments)], capture_output=True,
                          check=False, timeout=60, **options)
    return done.returncode, done.stdout, done.stderr.decode()


def ctl_json(*arguments):
    code, out, _ = ctl(*arguments, "--json")
    return code, json.loads(out)


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    made = Site(tmp_path_factory.mktemp("server"))
    yield made.backend("A001", weight=7)
    made.close()


@pytest.fixture
def listen():
    """Opens a port where something else than a server answers."""
    listeners = []

    def talk(answer, peer):
        try:
            with peer:
                answer(peer)
        except OSError:
            pass

    def accept(listener, answer):
        try:
            while True:
                peer = listener.accept()[0]
                threading.Thread(target=talk, args=(answer, peer), daemon=True).start()
        except OSError:
            pass

    def start(answer):
        listeners.append(socket.create_server(("127.0.0.1", 0)))
        threading.Thread(target=accept, args=(listeners[-1], answer), daemon=True).start()
        return "127.0.0.1:%d" % listeners[-1].getsockname()[1]

    yield start
    for listener in listeners:
        listener.shutdown(socket.SHUT_RDWR)
        listener.close()


def silent(peer):
    while peer.recv(4096):
        pass


def http(peer):
    """Waits for the end of a line, as servers of HTTP do."""
    while b"\n" not in peer.recv(4096):
        pass
    peer.sendall(b"HTTP/1.0 400 Bad Request\r\n\r\n")


def tls(peer):
    ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER).wrap_socket(peer, server_side=True)


def says(first):
    def answer(peer):
        peer.sendall(first)
        silent(peer)
    return answer


def test_ping_tells_how_servers_answer_and_who_they_are(site):
    one, two = site.cluster(2, each=[{"weight": 3}, {"weight": 4}])
    code, answer = ctl_json("ping", one.address, f"localhost:{two.address.split(':')[1]}",
                            "--count", 3, "--interval", 0)
    assert code == 0
    for got, (rep_id, weight) in zip(answer["servers"], [("s001", "3"), ("s002", "4")]):
        assert (got["ok"], got["rep_id"], got["weight"]) == (True, rep_id, weight)
        assert (got["mappings"], got["cluster"], got["sequence"]) == (2, 2, 1)
        assert got["asked"] == len(got["answer_ms"]) == 3
        assert 0 < got["connect_ms"] < 5000 and 0 < min(got["answer_ms"])
    code, out, _ = ctl("ping", one.address, "127.0.0.1:1")
    head, alive, refused = out.decode().splitlines()
    assert code == 2
    assert head.split()[:4] == ["SERVER", "CONNECT", "ANSWER", "REP_ID"]
    assert alive.split()[5:] == ["s001", "3", "ROUNDROBIN", "true", "2", "2", "1"]
    assert refused.split() == ["127.0.0.1:1", "refused"]


@pytest.mark.parametrize("answer, told", [
    (http, 'answered "HTTP": not a Vesk port'),
    (tls, "answered in TLS: not a Vesk port"),
    (says(b"SSH-2.0-x\r\n"), 'answered "SSH-": not a Vesk port'),
    (says(b"\033]0;x\007"), r'answered "\x1b]0;": not a Vesk port'),
    (silent, "took the connection and sent no answer in 0.5 s"),
    (socket.socket.close, "took the connection and closed it without an answer"),
    (says(word(BUSY)), "busy"),
    (says(word(FINISH)), "has no such set"),
    (says(word(PUT_PROPS) + word(-5)), "broke the protocol"),
    (says(word(PUT_PROPS) + word(0x7FFFFFF0)), "announced a text too large to be one"),
    (says(word(PUT_PROPS) + word(9) + b"x"), "its answer had no end in 0.5 s"),
])
def test_ping_tells_what_is_no_server(listen, answer, told):
    address = listen(answer)
    code, out, _ = ctl("ping", address, "--timeout", 0.5)
    assert (code, out.decode().splitlines()[1].split(None, 1)) == (2, [address, told])


def test_a_stopped_server_gives_no_answer(site):
    stopped = site.backend()
    stopped.signal(signal.SIGSTOP)
    try:
        told = "took the connection and sent no answer in 0.5 s"
        for command in (("ping",), ("props",), ("get", "/demo/snoop")):
            code, out, err = ctl(command[0], stopped.address, *command[1:], "--timeout", 0.5)
            assert code == 2 and told in out.decode() + err
    finally:
        stopped.signal(signal.SIGCONT)


def test_props_shows_sets_as_they_came(server, site):
    assert ctl("props", server.address, "servlet-mappings") == (
        0, b"/demo/*=demo\n*.jsp=demo\n", "")
    code, answer = ctl_json("props", server.address)
    assert code == 0
    assert [one["set"] for one in answer["sets"]] == [
        "server-props", "servlet-mappings", "clustered-servers"]
    assert {"key": "weight", "value": "7"} in answer["sets"][0]["pairs"]
    code, _, err = ctl("props", server.address, "other")
    assert code == 2 and err.endswith("other: has no such set\n")
    hostile = site.fake(mappings=[("/\033[2J", "x\u202ey" + "z" * 5000), ("/twice", "1"),
                                  ("/twice", "2")])
    _, out, _ = ctl("props", hostile.address, "servlet-mappings")
    assert out.startswith(b"/\\x1b[2J=x\\xe2\\x80\\xaeyzzz")
    assert out.endswith(b"...\n/twice=1\n/twice=2\n") and len(out) < 4300


def test_get_passes_requests_and_answers_whole(server, tmp_path):
    body = bytes(range(256)) * 5000
    (tmp_path / "body").write_bytes(body)
    at = server.address
    code, out, _ = ctl("get", at, "/demo/upload", "--data", f"@{tmp_path}/body")
    assert code == 0 and json.loads(out)["sha256"] == hashlib.sha256(body).hexdigest()
    assert ctl("get", at, "/demo/echo", "-d", "@-", input=body) == (0, body, "")
    assert ctl("get", at, "/demo/echo", "-d", "@-", "-o", tmp_path / "out", input=body)[0] == 0
    assert (tmp_path / "out").read_bytes() == body
    code, out, _ = ctl("get", at, "/demo/snoop?a=b", "-X", "DELETE", "-H", "X-Name:  v w",
                       "-H", "Cookie: JSESSIONID=A001xTRB002")
    seen = json.loads(out)
    assert (seen["method"], seen["uri"], seen["session_id"]) == (
        "DELETE", "/demo/snoop", "A001xTRB002")
    assert seen["variables"]["QUERY_STRING"] == "a=b" and ["x-name", "v w"] in seen["headers"]
    code, out, _ = ctl("get", at, "/demo/status?code=404", "-i", "--fail")
    head, _, page = out.partition(b"\n\n")
    lines = head.decode().splitlines()
    assert (code, lines[0]) == (1, "404 Not Found")
    assert f"Content-Length: {len(page)}" in lines


@pytest.mark.parametrize("target, options, told", [
    ("/demo/busy", [], "busy"),
    ("/demo/die?at=start", [], "took the connection and closed it without an answer"),
    ("/demo/die?at=data", [], "closed the connection in the middle of its answer"),
    ("/demo/die?at=unknown", [], "broke the protocol: handleVeskppRequest: bad command: 42"),
    ("/demo/die?at=huge", [], "announced a text too large to be one"),
    ("/demo/sleep?ms=3000", ["--timeout", "0.3"],
     "took the connection and sent no answer in 0.3 s"),
    ("/demo/bytes?n=1000000", ["-o", "/dev/full"], "can't write: No space left on device"),
    ("/demo/snoop", ["-d", "@/nowhere"], "can't read /nowhere: No such file or directory"),
])
def test_get_tells_why_there_is_no_whole_answer(server, target, options, told):
    code, _, err = ctl("get", server.address, target, *options)
    assert code == 2 and told in err


def test_get_repeats_and_tells_times(site):
    def fail_fifth(peer, _):
        fifth = len(fake.requests) == 5
        peer.send(word(BUSY) if fifth else status(200) + client("x") + word(FINISH))
        return not fifth

    fake = site.fake(fail_fifth)
    code, answer = ctl_json("get", fake.address, "/x", "--repeat", 20)
    assert code == 2 and len(fake.requests) == answer["requests"] == 20
    assert answer["statuses"] == {"200": 19} and answer["failures"] == {"busy": 1}
    times = [answer["answer_ms"][name] for name in ("min", "p50", "p90", "p99", "max")]
    assert times == sorted(times) and times[0] > 0


def test_nothing_of_an_answer_acts_on_a_terminal(site):
    bad = b"\033[2J\r\xc2\x9b5n\xff\xe2\x80\xae\n\tgr\xc3\xbcn"
    fake = site.fake(lambda peer, _: peer.send(
        status(200, "\033c"), word(7) + text("x: \033[1m\r\n"), client(bad[:-2]),
        client(bad[-2:]), word(FINISH)))
    terminal, end = pty.openpty()
    with subprocess.Popen([BUILD / "bin/vesk-ctl", "get", fake.address, "/x", "-i"], stdout=end):
        os.close(end)
    shown = os.read(terminal, 65536).replace(b"\r\n", b"\n").decode()
    os.close(terminal)
    assert shown == ("200 \\x1bc\nx: \\x1b[1m\n\n\\x1b[2J\\x0d\\xc2\\x9b5n\\xff"
                     "\\xe2\\x80\\xae\n\tgrün")


def test_watch_shows_what_a_web_server_counts_and_what_servers_answer(site):
    servers = site.cluster(2)
    host = site.host(servers[0], events="true", stages=(
        Host.STAGES[0], 'Service fn="veskservice" report="status" path="/st"', Host.STAGES[1]))
    for _ in range(10):
        assert host.fetch("/demo/snoop").status == 200
    page = "http://%s:%d/st" % host.address
    code, seen = ctl_json("watch", page, "--count", 1)
    assert code == 0 and sum(one["requests"] for one in seen["servers"]) == 10
    servers[1].kill()
    wait_until(lambda: host.fetch("/demo/snoop") and host.said("DOWN connect"), "down")
    code, out, _ = ctl("watch", page, "--count", 1)
    rows = [line.split() for line in out.decode().splitlines() if line[:4] == "127."]
    assert code == 0
    assert {row[0]: row[1].strip(",") for row in rows} == {
        servers[0].address: "up", servers[1].address: "down"}
    assert f"vesk server {servers[1].address} DOWN connect: refused" in out.decode()
    code, seen = ctl_json("watch", host.path("conf"), "--count", 1)
    assert code == 2 and [(one["state"], one["failure"]) for one in seen["servers"]] == [
        ("up", None), ("down", "refused")]


@pytest.mark.parametrize("answer, told", [
    (http, "status 400 Bad Request"),
    (says(b"HTTP/1.0 200 OK\r\ncontent-length: 13\r\n\r\n{\"servers\":1}"),
     "not the status page of a connector"),
    (says(b"HTTP/1.0 200 OK\r\ncontent-length: 99999999\r\n\r\n"), "body limit exceeded"),
    (silent, "timed out"),
])
def test_watch_tells_what_is_no_status_page(listen, answer, told):
    code, out, _ = ctl("watch", f"http://{listen(answer)}/", "-c", 1, "--timeout", 0.5)
    assert code == 2 and told in out.decode()


@pytest.mark.parametrize("end", ["q", signal.SIGINT, signal.SIGTERM])
def test_watch_leaves_the_terminal_as_it_was(listen, end):
    """While it waits for a web server that doesn't answer."""
    terminal, other = pty.openpty()
    before = termios.tcgetattr(other)
    with subprocess.Popen([BUILD / "bin/vesk-ctl", "watch", f"http://{listen(silent)}/"],
                          stdin=other, stdout=other) as watch:
        shown = b""
        while b"http://" not in shown:
            shown += os.read(terminal, 65536)
        assert termios.tcgetattr(other) != before
        if end == "q":
            os.write(terminal, b"q")
        else:
            watch.send_signal(end)
        assert watch.wait(3) == 0
    shown += os.read(terminal, 65536)
    assert termios.tcgetattr(other) == before
    for entered, left in ("\033[?1049h", "\033[?1049l"), ("\033[?25l", "\033[?25h"):
        assert shown.find(entered.encode()) < shown.find(left.encode())
    os.close(other)
    os.close(terminal)


@pytest.mark.parametrize("arguments", [
    (), ("nothing",), ("ping",), ("ping", "127.0.0.1:1", "--count", "0"),
    ("get", "127.0.0.1:1", "x"), ("get", "127.0.0.1:1", "/", "-H", "no colon"),
])
def test_a_wrong_command_line_has_a_status_of_its_own(arguments):
    code, out, err = ctl(*arguments)
    assert (code, out) == (3, b"") and err
