"""The servers of a run, and when each gets into which trouble.

The schedule follows from the seed alone: times are those of the plan, whatever the
programs make of them.
"""

import random
import signal
import socket
import threading
import time
from typing import NamedTuple

from processes import Backend
from relay import MODES

PROCESS_FAULTS = ("kill", "stop", "restart", "leave")
MAPCHECK = 2  # seconds: how soon a new mapping is seen
RETRY = 1     # seconds: the pause before a server that is down is asked again
# In no order, so that two runs don't meet; below those that the kernel gives to
# connections, one of which could take the port of a server that is down.
PORTS = iter(random.sample(range(20000, 30000), 10000))


class Trouble(NamedTuple):
    start: float
    duration: float
    server: int
    fault: str


def plan(seed, servers, seconds):
    """The troubles of a run: at any time one server at least is well. The last server is
    not known until it joins."""
    dice, deck = random.Random(f"{seed} plan"), []
    troubles = [Trouble(0, dice.uniform(1, 3), servers - 1, "join")]
    free_at = [0.0] * (servers - 1) + [10.0]
    clock = 0.5
    while clock < seconds - 1:
        deck = deck or dice.sample(PROCESS_FAULTS + MODES, len(PROCESS_FAULTS + MODES))
        able = [n for n in range(servers) if free_at[n] <= clock
                and (deck[-1] in PROCESS_FAULTS or has_relay(n))]
        running = sum(t.start + t.duration > clock for t in troubles)
        if able and running < servers - 1:
            server, duration = dice.choice(able), min(dice.uniform(0.3, 3.5), seconds - clock)
            troubles.append(Trouble(clock, duration, server, deck.pop()))
            free_at[server] = clock + duration + dice.choice([0.5, 3, 6.5, 8])
        clock += dice.uniform(0.2, 1.2)
    return troubles


def has_relay(number):
    """Every second server, with the first, stands behind a relay; the others are open to
    what only a process of their own can do to the connector."""
    return number % 2 == 0


def free_port():
    """A port that nobody else gets in this run."""
    for port in PORTS:
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass
    raise OSError("no port is free")


class Cluster:
    """The file that names the members."""

    def __init__(self, folder):
        self.path, self.fresh = folder / "cluster", folder / "cluster.new"
        self.lock = threading.Lock()
        self.sequence, self.members = 0, []

    def change(self, change, address):
        with self.lock:
            change(self.members, address)
            self.sequence += 1
            self.fresh.write_text("\n".join([str(self.sequence), *self.members]) + "\n")
            self.fresh.replace(self.path)


class Server:
    """One server, its relay where it has one, and whether it is well."""

    def __init__(self, folder, number, cluster):
        self.name, self.number, self.cluster = f"s{number + 1:03}", number, cluster
        self.backend = Backend(folder, self.name, cluster=cluster.path, mapcheck=MAPCHECK,
                               proxyretryinterval=RETRY)
        self.backend.address = f"127.0.0.1:{free_port()}"
        self.address = f"127.0.0.1:{free_port()}" if has_relay(number) else self.backend.address
        self.generation, self.relays = 0, None
        self.well_since = None
        self.faults = {
            "kill": (self.backend.kill, self.backend.start),
            "stop": (lambda: self.backend.signal(signal.SIGSTOP),
                     lambda: self.backend.signal(signal.SIGCONT)),
            "restart": (self.backend.stop, self.start),
            "join": (lambda: None, lambda: cluster.change(list.append, self.address)),
            "leave": (lambda: cluster.change(list.remove, self.address),
                      lambda: cluster.change(list.append, self.address)),
        }

    @property
    def place(self):
        """What its relay must know."""
        host, port = self.backend.address.split(":")
        return self.name, int(self.address.split(":")[1]), (host, int(port))

    @property
    def own(self):
        """The folder that this server alone serves, until its next restart."""
        return f"/own/{self.name}-{self.generation}/"

    def start(self):
        """Starts the process; what it alone serves is new."""
        self.generation += 1
        self.backend.options["mapping"] = ["/demo/*=demo", f"{self.own}*=own"]
        self.backend.start()

    def suffer(self, trouble, ending):
        """One trouble from its begin to its end, or to that of the run."""
        begin, finish = self.faults.get(trouble.fault) or (
            lambda: self.relays.switch(self.name, trouble.fault),
            lambda: self.relays.switch(self.name, None))
        self.well_since = None
        begin()
        ending.wait(trouble.duration)
        finish()
        self.well_since = time.monotonic()

    def live(self, troubles, begin, ending):
        """All its troubles, at their times behind `begin`."""
        for trouble in troubles:
            if ending.wait(begin + trouble.start - time.monotonic()):
                return
            self.suffer(trouble, ending)

    def end(self):
        if self.backend.running():
            self.backend.signal(signal.SIGCONT)
            self.backend.kill()
