"""All programs of a run: in folders of their own, and ended by their process ids."""

import os
import pathlib
import signal
import time

import fronts
from measure import family
from processes import Backend

GRACE = 10  # seconds to end in

# Label and class of those that the connector stands in.
CONNECTORS = (("httpd + connector", fronts.Httpd), ("vesk-host", fronts.Embedded))
COUNTED = (("httpd + connector", fronts.CountedHttpd), ("vesk-host", fronts.CountedEmbedded))


def lives(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


def tell(pids, number):
    for pid in pids:
        try:
            os.kill(pid, number)
        except ProcessLookupError:
            pass


def end(program):
    """Asks it to end; whatever of it runs on then is killed."""
    if not program.running():
        return
    pids, deadline = family(program.process.pid), time.monotonic() + GRACE
    tell(pids[:1], signal.SIGTERM)
    while any(map(lives, pids)) and time.monotonic() < deadline:
        program.process.poll()
        time.sleep(0.02)
    tell([pid for pid in pids if lives(pid)], signal.SIGKILL)
    program.process.wait(GRACE)


class Site:
    def __init__(self, folder):
        self.folder = folder
        self.programs = []
        self.rooms = 0

    def room(self):
        self.rooms += 1
        room = self.folder / f"{self.rooms:04}"
        room.mkdir()
        return room

    def start(self, label, program):
        program.label = label
        self.programs.append(program)
        return program.start()

    def server(self, number=1, **options):
        """A server behind the connector."""
        options = {"mapping": "/b/*=demo", **options}
        return self.start("server", Backend(self.room(), f"s{number:03}", **options))

    def connectors(self, server, kinds=CONNECTORS, threads=fronts.THREADS):
        return [self.start(label, kind(self.room(), threads=threads, bootstrap=server.address,
                                       guards="all")) for label, kind in kinds]

    def fronts(self):
        """All that are compared, and what they need."""
        files = self.start("files", fronts.Files(self.room(), None)).address[1]
        httpd, embedded = self.connectors(self.server())
        return [
            httpd,
            self.start("httpd alone", fronts.AnsweringHttpd(self.room())),
            self.start("httpd + mod_proxy_http", fronts.ProxyingHttpd(self.room(), files)),
            self.start("nginx", fronts.Nginx(self.room(), files)),
            self.start("HAProxy", fronts.Haproxy(self.room(), files)),
            embedded,
        ]

    def end(self, programs):
        for program in programs:
            end(program)
            self.programs.remove(program)

    def close(self):
        for program in reversed(self.programs):
            end(program)
