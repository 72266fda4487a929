"""What the status page counts, against what the clients have seen."""

import json
from typing import NamedTuple

import clients

PATH = "/vesk-status"
LINE = f'Service fn="veskservice" report="status" path="{PATH}"'
PATTERN = "/demo*"  # the mapping of the clients' requests; the probes have their own


class Counts(NamedTuple):
    hits: int      # requests of the clients' mapping
    served: int    # of all mappings
    attempts: int  # that the servers' own counts call served


def read(host):
    page = json.loads(host.fetch(f"{PATH}?format=json").body)
    hits = {mapping["pattern"]: mapping["hits"] for mapping in page["mappings"]}
    return Counts(hits[PATTERN], page["requests"]["served"],
                  sum(server["served"] for server in page["servers"]))


def disagreements(before, after, found):
    """What the page counts wrong: what, how often, how often at most.

    Who left in the middle, or whose connection broke, may have been counted or not.
    """
    grown = Counts(*(late - early for early, late in zip(before, after)))
    asked = sum(found.counts.values())
    answered = sum(found.counts[kind] for kind in (clients.WHOLE, clients.VISIBLY_BROKEN))
    whole = found.counts[clients.WHOLE]
    return [
        ("answers that the status page doesn't count", max(0, answered - grown.hits), 0),
        ("requests that it counts and nobody asked", max(0, grown.hits - asked), 0),
        ("whole answers that it doesn't count as served", max(0, whole - grown.served), 0),
        ("served requests that no server's count has", abs(grown.served - grown.attempts), 0),
    ]


def told(before, after):
    return ", ".join(f"{name} {late - early}"
                     for name, early, late in zip(Counts._fields, before, after))
