"""What an operator would look at: do files come at once, are all servers back, is
anything left over."""

import collections
import os
import pathlib
import re
import signal
import threading
import time

from browser import Connection
from clients import Request, WHOLE, verdict
from processes import REDUCED

# Seconds; a build with a sanitizer has more time for all.
BACK = 10 if REDUCED else 5      # in which a server that is well must serve again
SLOW_FILE = 3 if REDUCED else 1
TICK = 0.05     # seconds between two files
PATIENCE = 3    # seconds that a probe waits for bytes
RELOAD = 1      # seconds that httpd takes, without any module, to replace its only child
FILE = ("/static.txt", b"a file of the web server\n" * 40)


class Watch:
    """Probes until told to end. Figures may be read once it has."""

    def __init__(self, address, servers):
        self.address = address
        self.ending = threading.Event()
        self.counts = collections.Counter()
        self.slowest_file, self.longest_return = 0.0, 0.0
        self.stalls = []         # when the machine let a sleeper oversleep, and by how much
        self.samples = []
        self.reloaded = -RELOAD  # when the web server was told to reload
        watches = (self._watch_machine, self._watch_files)
        self.threads = [threading.Thread(target=target) for target in watches] + [
            threading.Thread(target=self._watch_server, args=(server,)) for server in servers]
        for thread in self.threads:
            thread.start()

    def end(self):
        self.ending.set()
        for thread in self.threads:
            thread.join()

    def _sample(self, text):
        self.samples.append(f"{time.strftime('%H:%M:%S')} {text}")

    def _watch_machine(self):
        """Others may have the machine: what a mere sleeper loses is no fault of a file's."""
        before = time.monotonic()
        while not self.ending.wait(TICK):
            now = time.monotonic()
            self.stalls.append((now, now - before - TICK))
            before = now

    def _stalled(self, begin):
        return sum(stall for when, stall in list(self.stalls) if when > begin)

    def longest_stall(self):
        return max(stall for _, stall in self.stalls)

    def _watch_files(self):
        while not self.ending.wait(TICK):
            begin, error = time.monotonic(), None
            try:
                with Connection(self.address, timeout=PATIENCE) as browser:
                    response = browser.fetch("GET", FILE[0])
                    assert response.body == FILE[1], f"status {response.status}"
            except Exception as fault:
                error = fault
            took = time.monotonic() - begin
            self.counts["files"] += 1
            self.slowest_file = max(self.slowest_file, took)
            own = RELOAD if begin < self.reloaded + RELOAD else 0
            if took > SLOW_FILE + own + self._stalled(begin) or error:
                self.counts["slow files"] += 1
                self._sample(f"slow file: {took:.2f} s {error or ''}")

    def _watch_server(self, server):
        last, judged, number, was_out = 0.0, None, 0, False
        while not self.ending.wait(0.2):
            since, number = server.well_since, number + 1
            if since is None:
                continue
            found = self._probe(server, number)
            if server.well_since != since:
                continue
            now = time.monotonic()
            if found is None:
                if last < since:
                    self.longest_return = max(self.longest_return, now - since)
                last = now
            out = found is not None and now - max(since, last) > BACK
            if judged != since and now - since > BACK:
                judged = since
                self.counts["judged"] += 1
            if out and not was_out:
                self.counts["out of service"] += 1
                self._sample(f"out of service: {server.name}, well for {now - since:.1f} s, "
                             f"served before that: {last > since}; {found}")
            was_out = out

    def _probe(self, server, number):
        """Null when the server answers where it alone serves, else what came."""
        mark = f"p-{server.name}-{number}"
        request = Request(mark, "GET", f"{server.own}marked?mark={mark}&blocks=2", [], None)
        try:
            with Connection(self.address, timeout=PATIENCE) as browser:
                response = browser.fetch("GET", request.target)
        except Exception as fault:
            return repr(fault)
        return None if verdict(request, response) == WHOLE else f"status {response.status}"


def family(pid):
    """A process and all below it."""
    tasks = pathlib.Path(f"/proc/{pid}/task/{pid}/children")
    return [pid] + [one for child in tasks.read_text().split() for one in family(int(child))]


def kill_family(pid):
    """Ends them all: httpd's children outlive a parent that is killed."""
    os.kill(pid, signal.SIGSTOP)  # it starts no more of them
    for one in family(pid):
        os.kill(one, signal.SIGKILL)


def descriptors(pid):
    return sum(len(list(pathlib.Path(f"/proc/{one}/fd").iterdir())) for one in family(pid))


def memory(pid):
    """KiB that belong to the processes alone."""
    texts = [pathlib.Path(f"/proc/{one}/status").read_text() for one in family(pid)]
    return sum(int(re.search(r"RssAnon:\s+(\d+)", text)[1]) for text in texts)


def carried_out(folder):
    """How often each mark was carried out, as the servers have written it down."""
    marks = collections.Counter()
    for log in folder.glob("s*.err"):
        marks.update(re.findall(r"carried out (\S+)$", log.read_text(errors="replace"), re.M))
    return marks
