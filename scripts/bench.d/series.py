"""What a request costs as work grows: mappings, servers, request headers, body, connections."""

import collections
import contextlib
import statistics
import sys
from typing import Callable, NamedTuple

import fronts
import measure
from measure import HEADERS

MIB = 1 << 20


class Point(NamedTuple):
    """Where fronts get their servers from, and what is asked of them."""
    server: object
    threads: int = fronts.THREADS
    headers: tuple = HEADERS
    connections: int = 16
    body: int | None = None
    idle: int = 0  # clients beside, which have asked once


class Series(NamedTuple):
    name: str
    axis: str
    points: tuple
    few: tuple       # of a quick run
    prepare: Callable  # site, number: a Point


def mappings(site, count):
    """The one that fits is the last to be looked at: it has the shortest prefix."""
    others = [f"/b{number:06}/*=demo" for number in range(count - 1)]
    return Point(site.server(mapping=[*others, "/b/*=demo"]))


def servers(site, count):
    """They share one list, which is complete before a front reads it."""
    cluster = site.folder / "cluster"
    cluster.write_text("1\n127.0.0.1:1\n")  # until the ports are known
    started = [site.server(number, cluster=cluster) for number in range(count)]
    lines = ["2", *(server.address for server in started)]
    cluster.write_text("\n".join(lines) + "\n")
    return Point(started[0])


def headers(site, count):
    more = [(f"X-Header-{number:03}", f"value {number:010}") for number in range(count)]
    return Point(site.server(), headers=tuple(more))


def body(site, size):
    return Point(site.server(), body=size)


def connections(site, count):
    return Point(site.server(), threads=256, connections=count)


def idle(site, count):
    return Point(site.server(), connections=64, idle=count)


ALL = (
    Series("mappings", "mappings, of which the last fits", (1, 16, 128, 1024, 4096, 8192),
           (1, 128, 8192), mappings),
    Series("servers", "servers of one cluster", (1, 2, 8, 32, 128), (1, 8, 128), servers),
    Series("headers", "request headers, besides Host", (1, 10, 25, 50, 100, 199),
           (1, 50, 100, 199), headers),
    Series("body", "bytes of a POST, 1 connection",
           (0, 1 << 10, 16 << 10, 256 << 10, MIB, 16 * MIB, 64 * MIB),
           (0, 64 << 10, 4 * MIB, 64 * MIB), body),
    Series("connections", "connections, 256 threads", (1, 4, 16, 64, 256), (1, 16, 256),
           connections),
    Series("idle", "clients that are idle, beside 64 that ask", (0, 250, 1000), (0, 1000),
           idle),
)


def takes(front, point):
    """Whether the front takes so many headers at all."""
    return front.fetch(measure.target(1), headers=point.headers).status not in (400, 431)


def warm_up(front, point):
    """Every server has had its turn and keeps a connection."""
    with front.connect() as browser:
        for _ in range(300):
            measure.ask(browser, front, headers=point.headers)


def one(front, point, seconds):
    if point.body is not None:
        return measure.posts(front, point.body, seconds)
    with contextlib.ExitStack() as held:
        for _ in range(point.idle):
            measure.ask(held.enter_context(front.connect()), front, headers=point.headers)
        return measure.timed(front, connections=point.connections, headers=point.headers,
                             seconds=seconds)


def costs(site, point, plan):
    """The medians of each front; one that refuses such requests is left out."""
    taking = [front for front in site.connectors(point.server, threads=point.threads)
              if takes(front, point)]
    for front in taking:
        warm_up(front, point)
    found = collections.defaultdict(list)
    for _ in range(plan.series_rounds):
        for front in taking:
            found[front.label].append(one(front, point, plan.seconds))
    return {label: {key: statistics.median(run[key] for run in runs) for key in runs[0]}
            for label, runs in found.items()}


def measured(site, series, plan):
    """Gives (number, costs) of each point; its programs end with it."""
    for number in series.few if plan.quick else series.points:
        before = list(site.programs)
        try:
            found = costs(site, series.prepare(site, number), plan)
        except measure.Trouble as trouble:  # the other points are worth having
            print(f"scripts/bench: left out: {trouble}", file=sys.stderr)
            found = {}
        site.end([program for program in reversed(site.programs) if program not in before])
        yield number, found
