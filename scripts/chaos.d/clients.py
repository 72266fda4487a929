"""Browsers that know which bytes are theirs.

One process runs them all, a thread each. Every request carries a mark of its own, and
every block of its answer must bear it.
"""

import collections
import http.client
import multiprocessing
import random
import re
import signal
import socket
import struct
import threading
import time
from typing import NamedTuple

from browser import Connection

CLIENTS = 16
PATIENCE = 20  # seconds that a client waits for bytes
MOST_REQUESTS = 200  # of one client in a second: the loops are bounded
LINE = re.compile(rb"(\S+) (\S+) (\d+)/(\d+) \.*")

SERVER = "x-server-"  # begins the header that names who has answered

# What an answer comes to; all but the first two must not happen.
WHOLE, VISIBLY_BROKEN = "whole answers", "answers that broke off, and show it"
FOREIGN, MIXED = "answers of another request", "mixed answers"
FALSE, DAMAGED = "complete-looking broken answers", "requests that reached a server damaged"

# Weight, method, query, lines of the request's body.
KINDS = (
    (30, "GET", "blocks=3&size=200", 0),
    (10, "HEAD", "blocks=3", 0),
    (15, "GET", "blocks=8&size=3000&ms=10&length=0", 0),
    (10, "GET", "blocks=10&size=40000", 0),
    (5, "GET", "blocks=6&size=1000&ms=60", 0),
    (15, "POST", "blocks=2&size=300", 20),
    (10, "POST", "blocks=2&size=300", 0),
    (10, "POST", "blocks=4&size=9000&ms=5&length=0", 1500),
    (5, "POST", "blocks=2", 20000),
)


class Request(NamedTuple):
    mark: str
    method: str
    target: str
    headers: list
    body: bytes | None


def marks_of(response):
    """The lines of a body, parsed, and whether all of it was such lines."""
    lines = response.body.split(b"\n")
    found = [LINE.fullmatch(line) for line in lines[:-1]]
    whole = lines[-1] == b"" and all(found)
    return [match.groups() for match in found if match], whole


def verdict(request, response):
    """What an answer is to the one who asked for it."""
    if response.status == 400:
        return DAMAGED
    if response.status != 200:
        return f"status {response.status} to {request.method}"
    lines, clean = marks_of(response)
    marks = {mark.decode() for mark, *_ in lines} | set(response.all("x-mark"))
    named = [name[len(SERVER):] for name, _ in response.headers if name.lower().startswith(SERVER)]
    servers = {server.decode() for _, server, *_ in lines} | set(named)
    if marks and request.mark not in marks:
        return FOREIGN
    numbers = [int(number) for _, _, number, _ in lines]
    ordered = numbers == list(range(1, len(lines) + 1))
    if len(marks) > 1 or len(servers) > 1 or not ordered or len(response.all("x-mark")) > 1:
        return MIXED
    if not response.complete:
        return VISIBLY_BROKEN
    if request.method == "HEAD":
        return WHOLE if marks and not response.body else FALSE
    return WHOLE if clean and lines and len(lines) == int(lines[0][3]) else FALSE


class Found(NamedTuple):
    """What a crowd of clients has found."""
    counts: collections.Counter
    samples: list
    foreign: list
    acknowledged: list
    longest: float


class Ledger:
    """What became of all requests. Any thread may write."""

    def __init__(self):
        self.lock = threading.Lock()
        self.counts = collections.Counter()
        self.samples = []         # of what should not be, a line each
        self.foreign = []         # marks of requests that got another's answer
        self.acknowledged = []    # marks of POSTs that got a whole answer
        self.longest = 0.0

    def write(self, outcome, request, took, detail=""):
        with self.lock:
            self.counts[outcome] += 1
            self.longest = max(self.longest, took)
            if outcome == WHOLE and request.method == "POST":
                self.acknowledged.append(request.mark)
            if outcome == FOREIGN:
                self.foreign.append(request.mark)
            if outcome in (FOREIGN, MIXED, FALSE, DAMAGED):
                self.samples.append(f"{time.strftime('%H:%M:%S')} {outcome}: {request.method} "
                                    f"{request.target} got {detail}")


    def found(self):
        return Found(self.counts, self.samples, self.foreign, self.acknowledged, self.longest)


class Client:
    """One browser: it keeps its connection as long as the web server does."""

    def __init__(self, name, address, servers, seed, ledger):
        self.name = name
        self.address, self.servers, self.ledger = address, servers, ledger
        self.random = random.Random(f"{seed} {self.name}")
        self.browser = None
        self.count = 0

    def run(self, ending, most):
        while self.count < most and not ending.is_set():
            self._ask(self._next())
            ending.wait(self.random.uniform(0, 0.02))
        self._hang_up()

    def _next(self):
        self.count += 1
        mark = f"{self.name}-{self.count}"
        [(_, method, query, lines)] = self.random.choices(KINDS, [kind[0] for kind in KINDS])
        headers = []
        if self.random.random() < 0.3:  # a session that one of the servers owns
            owner = self.random.choice(self.servers)
            headers.append(("Cookie", f"JSESSIONID={owner}c0ffeeTR****"))
        body = (mark + "\n").encode() * lines if method == "POST" else None
        return Request(mark, method, f"/demo/marked?mark={mark}&{query}", headers, body)

    def _ask(self, request):
        begin = time.monotonic()
        try:
            if self.browser is None:
                self.browser = Connection(self.address, timeout=PATIENCE)
            if self.random.random() < 0.08:
                outcome, detail = self._leave(request), ""
            else:
                outcome, detail = self._fetch(request)
        except TimeoutError:
            outcome, detail = f"no answer in {PATIENCE} s", ""
        except (ConnectionError, http.client.RemoteDisconnected):
            outcome, detail = "connection closed without an answer", ""
        except http.client.HTTPException as error:
            outcome, detail = MIXED, repr(error)
        if outcome != WHOLE and not outcome.startswith("status"):
            self._hang_up()
        self.ledger.write(outcome, request, time.monotonic() - begin, detail)

    def _fetch(self, request):
        response = self.browser.fetch(request.method, request.target, request.headers, request.body)
        if (response.header("connection") or "").lower() == "close":
            self._hang_up()
        framing = response.header("content-length") or response.header("transfer-encoding")
        detail = (f"{response.status} of {response.all('x-mark')} "
                  f"{framing}, {len(response.body)} bytes, {response.body[:40]} ... "
                  f"{response.body[-40:]}")
        return verdict(request, response), detail

    def _leave(self, request):
        """Goes away in the middle: of its own body, or of the answer."""
        body = request.body
        if body and self.random.random() < 0.5:
            head = [*request.headers, ("Content-Length", str(len(body)))]
            self.browser.ask(request.method, request.target, head)
            self.browser.send(body[:len(body) // 2])
        else:
            self.browser.ask(request.method, request.target, request.headers, body)
            if self.random.random() < 0.5:
                self.browser.some(1000)
        if self.random.random() < 0.5:
            self.browser.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                         struct.pack("ii", 1, 0))
        self._hang_up()
        return "clients that left in the middle"

    def _hang_up(self):
        if self.browser is not None:
            self.browser.__exit__()
        self.browser = None


def _run(pipe, prefix, address, servers, seed, seconds):
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the driver ends this process
    ledger, ending = Ledger(), threading.Event()
    threads = [threading.Thread(target=Client(f"{prefix}{n:02}", address, servers, seed, ledger).run,
                                args=(ending, int(seconds * MOST_REQUESTS)))
               for n in range(CLIENTS)]
    for thread in threads:
        thread.start()
    pipe.poll(seconds)
    ending.set()
    for thread in threads:
        thread.join()
    pipe.send(ledger.found())


class Clients:
    """The process of all clients, as the driver has it; it ends by itself after a time."""

    def __init__(self, prefix, address, servers, seed, seconds):
        """`prefix` begins every mark: those of two crowds must differ."""
        context = multiprocessing.get_context("fork")
        self.pipe, theirs = context.Pipe()
        self.process = context.Process(target=_run, daemon=True,
                                       args=(theirs, prefix, address, servers, seed, seconds))
        self.process.start()
        theirs.close()

    def result(self):
        """Waits for the end; gives what they found."""
        found = self.pipe.recv()
        self.process.join(10)
        return found

    def kill(self):
        self.process.kill()
        self.process.join(10)
