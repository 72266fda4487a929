"""The web server as its operator meets it: start, log, stop."""

import os
import pathlib
import re
from contextlib import suppress

from processes import wait_until


def test_log_is_quiet_until_something_fails(site):
    server = site.backend()
    host = site.host(server)
    assert host.serves()
    [line] = [line for line in host.messages() if "veskNSAPI" in line]
    assert "veskNSAPI[init] " in line and "Vesk 4.0 (Build 108785) NSAPI Extension - " in line
    server.stop()
    assert not host.serves()
    host.wait_said("returning error page for 111 ")


def test_check_only_checks(site):
    host = site.host(site.backend())
    host.stop()
    lines = len(host.messages())
    assert host.check()[0] == 0 and len(host.messages()) == lines


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
