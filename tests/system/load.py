"""Many browsers at once, each checking every answer against its own request."""

import threading
import time


class Load:
    """While the block runs, 16 clients ask; afterwards `faults` and `served` tell.

    A fault is an answer that is not 200 with the content that this very request
    asked for. With `keep`, a client asks again on the same connection, which the
    web server must not close then.
    """

    def __init__(self, host, clients=16, keep=True):
        self.host = host
        self.keep = keep
        self.ending = threading.Event()
        self.faults = []
        self.counts = [0] * clients
        self.client_served, self.server_served = {}, {}  # when each was it last
        self.threads = [threading.Thread(target=self._run, args=(n,)) for n in range(clients)]

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        for thread in self.threads:
            thread.join(120)
        assert not any(thread.is_alive() for thread in self.threads)

    @property
    def served(self):
        return sum(self.counts)

    def servers(self, since):
        """The names of those that have answered since then."""
        return {name for name, when in list(self.server_served.items()) if when > since}

    def renewed(self, since):
        """Whether no request is left that was asked before then."""
        served = [when for when in list(self.client_served.values()) if when > since]
        return len(served) == len(self.threads)

    def _run(self, client):
        number = 0
        while not self.ending.is_set():
            try:
                with self.host.connect() as browser:
                    asked = number
                    while not self.ending.is_set() and (self.keep or number == asked):
                        number += 1
                        self._ask(browser, client, f"{client}-{number}")
            except Exception as fault:
                self.faults.append(f"{client}-{number}: {fault!r}")

    def _ask(self, browser, client, mark):
        response = browser.fetch("GET", f"/demo/snoop?{mark}", [("X-Mark", mark)])
        assert response.status == 200, f"{response.status} {response.body[:300]}"
        page = response.json()
        assert page["variables"]["QUERY_STRING"] == mark
        assert ["x-mark", mark] in page["headers"]
        self.counts[client] += 1
        self.client_served[client] = time.monotonic()
        self.server_served[page["server"]["rep_id"]] = time.monotonic()
