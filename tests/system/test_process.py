"""The web server as its operator meets it: start, log, stop."""

import os
import pathlib
import re
import threading
from contextlib import suppress

from processes import wait_until


def test_log_lines_of_start_up_and_a_traced_request(site):
    host = site.host(site.backend(), verbose="true", connecttimeout=7)
    lines = host.messages()
    first = next(line for line in lines if "Vesk 4.0 (Build 108785) NSAPI Extension - " in line)
    assert "veskNSAPI[init] " in first
    for message in ("ignoresuffixmap false", "apialloc false", f"serverstore {host.store}",
                    f"bootstrap {host.init['bootstrap']}", "proxyretryinterval 0",
                    "connecttimeout 7", "recvtimeout 300", "sendtimeout 15", "errorurl <null>"):
        assert sum(line.endswith(message) for line in lines) == 1, message

    with host.connect() as browser:
        port = browser.sock.getsockname()[1]
        browser.fetch("GET", "/demo/snoop")
    way = ("filterRequest:   matched /demo*", "PROXY_SERVICE_40 ->", "PROXY_FINISH <- [")
    host.wait_said(*way)
    lines = [line for line in host.messages() if f"veskNSAPI[{port}]" in line]
    assert all(any(message in line for line in lines) for message in way)


def test_log_is_quiet_until_something_fails(site):
    server = site.backend()
    host = site.host(server)
    assert host.serves()
    assert len([line for line in host.messages() if "veskNSAPI" in line]) == 1
    server.stop()
    assert not host.serves()
    host.wait_said("returning error page for 111 ")


def test_metrics_and_apialloc_serve_as_usual(site):
    host = site.host(site.backend(), metrics="true", apialloc="TRUE", traceflags="7")
    for _ in range(20):
        assert host.fetch("/demo/snoop", "POST", body=b"x" * 1000).status == 200


def test_stop_lets_a_request_end(site):
    host = site.host(site.backend(), verbose="true")
    answers = []
    with host.connect() as browser, host.connect():  # and one that asks for nothing
        browser.ask("GET", "/demo/stream?blocks=10&size=100&ms=100")
        reader = threading.Thread(target=lambda: answers.append(browser.read()))
        reader.start()
        host.wait_said("PROXY_PUT_CLIENT <-")
        host.terminate()
        reader.join(60)
        assert answers[0].complete and len(answers[0].body) == 1000
        assert host.process.wait(60) == 0  # though the browsers stay
    assert host.said("Vesk connector exiting")


def test_check_only_checks(site):
    host = site.host(site.backend())
    host.stop()
    lines = len(host.messages())
    assert host.check()[0] == 0 and len(host.messages()) == lines
    broken = host.path("conf").read_text().replace("veskfilter\"", "nosuch\"", 1)
    host.path("conf").write_text(broken)
    assert host.check()[0] != 0


def open_files(pid):
    """What a process has open, and whether a program that it runs gets it."""
    for info in pathlib.Path(f"/proc/{pid}/fdinfo").iterdir():
        with suppress(FileNotFoundError):  # closed meanwhile
            flags = int(re.search(r"flags:\s*(\d+)", info.read_text())[1], 8)
            yield os.readlink(f"/proc/{pid}/fd/{info.name}"), not flags & os.O_CLOEXEC


def test_programs_of_the_web_server_inherit_nothing(site):
    store = site.folder / "servers.store"
    os.mkfifo(store)
    pipe = os.open(store, os.O_RDWR | os.O_NONBLOCK)
    with suppress(BlockingIOError):  # a full pipe, so that the store stays open
        while os.write(pipe, bytes(65536)):
            pass
    host = site.host(site.backend(), serverstore=store)
    pid = (host.children() or [host.process.pid])[0]
    with host.connect() as browser:
        browser.ask("GET", "/demo/snoop")
        wait_until(lambda: str(store) in dict(open_files(pid)), "the store is open")
        left = {name for name, inherited in open_files(pid) if inherited}
        os.set_blocking(pipe, True)
        while os.read(pipe, 65536).endswith(b"\0"):
            pass
        assert browser.read().status == 200
    assert left <= {"/dev/null", *(str(host.path(name)) for name in ("out", "err", "log"))}
