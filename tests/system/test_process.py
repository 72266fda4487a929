"""The web server as its operator meets it: start, log, stop."""

import os
import pathlib
import re
from contextlib import suppress

import fake_server as wire
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


NOTES = " ".join(f"%{{{{VESK_{name}}}}}n"
                 for name in ("SERVER", "ATTEMPTS", "STATE", "TIME", "SESSION"))
ACCESS_LOG = {
    "embedded": {"directives": ["AccessLog access.log"]},
    "httpd": {"extra": 'CustomLog "{folder}/access.log" "%h - %u %t '
              '\\"%r\\" %>s %b \\"%{{Referer}}i\\" \\"%{{User-agent}}i\\" ' + NOTES + '"'}}


def test_access_log_tells_who_answered_and_how_it_went(site):
    servers = site.cluster(2)
    host = site.host(servers[0], **ACCESS_LOG[os.environ.get("VESK_E2E_HOST", "embedded")])
    wait_until(lambda: host.fetch("/demo/snoop").json()["server"]["rep_id"] == "s002", "both serve")
    servers[0].kill()
    for target in ("/demo/bytes?n=10", "/demo/bytes?n=10", "/file.txt"):
        (host.htdocs / "file.txt").write_text("a file")
        assert host.fetch(target, headers=[("User-Agent", 'a"b')]).status == 200
    log = site.folder / "access.log"

    def asked():
        """The three, by what was asked: a web server writes them in any order."""
        lines = [line for line in log.read_text().splitlines() if "snoop" not in line]
        return len(lines) == 3 and sorted(lines, key=lambda line: line.split('"')[1])

    lines = wait_until(asked, "a line for each")
    for line in lines[:2]:
        assert re.fullmatch(r'127\.0\.0\.1 - - \[[^]]+] "GET /demo/bytes\?n=10 HTTP/1\.1" 200 10 "-" '
                            r'"a\\(x22|")b" ' + servers[1].address + r" [12] \S\S \d+ none", line), line
    assert "2" in [line.split()[-4] for line in lines[:2]], "one met the dead server"
    assert re.search(r'"GET /file.txt HTTP/1.1" 200 6 "-" "\S+" - - - - -$', lines[2])


def test_access_log_tells_what_became_of_the_session(site):
    servers = site.cluster(2)
    host = site.host(servers[0], **ACCESS_LOG[os.environ.get("VESK_E2E_HOST", "embedded")])
    wait_until(lambda: host.fetch("/demo/snoop").json()["server"]["rep_id"] == "s002", "both serve")
    first = host.fetch("/demo/session")
    cookie = [("Cookie", first.header("set-cookie").split(";")[0])]
    [owner] = [one for one in servers if one.rep_id == first.json()["server"]["rep_id"]]
    host.fetch("/demo/session", headers=cookie)
    owner.kill()
    host.fetch("/demo/session", headers=cookie)
    log = site.folder / "access.log"
    wait_until(lambda: sorted(line.split()[-1] for line in log.read_text().splitlines()
                              if "/session" in line) ==
               ["kept", "moved:" + owner.address, "new"], "a word for each")


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
