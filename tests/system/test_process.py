"""The web server as its operator meets it: start, log, stop."""

import os
import pathlib
import re
from contextlib import suppress

import fake_server as wire


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
    inherited = set()

    def serve(peer, _):
        pid = (host.children() or [host.process.pid])[0]
        inherited.update(name for name, kept in open_files(pid) if kept)
        peer.send(wire.page(b"played"))

    host = site.host(site.fake(serve))
    assert host.fetch("/demo/").body == b"played"
    assert inherited <= {"/dev/null", *(str(host.path(name)) for name in ("out", "err", "log"))}
