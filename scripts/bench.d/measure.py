"""What a request costs: time, processor, system calls, instructions.

Processor times are those of the whole tree of a front's processes, from /proc, in steps of
1/100 s: a measurement takes a second at least. System calls and instructions are counted in
runs of their own, which slow the front down.
"""

import json
import os
import pathlib
import re
import signal
import statistics
import subprocess
import time

from fronts import target
from processes import wait_until

HEADERS = (  # roughly a browser's
    ("User-Agent", "Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0"),
    ("Accept", "text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8"),
    ("Accept-Language", "en-US,en;q=0.5"),
    ("Accept-Encoding", "gzip, deflate"),
    ("Cookie", "theme=light; visitor=0123456789abcdef"),
)
REPORT = pathlib.Path(__file__).with_name("wrk.lua")
TICK = os.sysconf("SC_CLK_TCK")
BROKEN = 1000  # one connection may break in so many requests: httpd closes some when it is full
FEW = 200      # requests whose instructions are counted
WARM_UP = 50   # requests before them


class Trouble(Exception):
    """Something that makes figures worthless."""


def family(pid):
    """A process and all that it has started."""
    pids = [pid]
    for one in pids:
        for children in pathlib.Path(f"/proc/{one}/task").glob("*/children"):
            pids += [int(child) for child in children.read_text().split()]
    return pids


def processor(front):
    """Seconds of processor that the front has used: its own and the kernel's for it."""
    total = 0
    for pid in family(front.process.pid):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        total += int(fields[11]) + int(fields[12])
    return total / TICK


def load(front, size=128, connections=16, seconds=1, headers=HEADERS):
    """Lets wrk ask as fast as it can; gives what it found, with times in microseconds."""
    fields = [word for name, value in headers for word in ("-H", f"{name}: {value}")]
    done = subprocess.run(
        ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--timeout", "30s", "-s", REPORT,
         *fields, f"http://127.0.0.1:{front.address[1]}{target(size)}"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=seconds + 90, check=False)
    line = re.search(r"^RESULT (.*)$", done.stdout, re.M)
    if not line:
        raise Trouble(f"wrk gave no result: {done.stdout[-500:]}{done.stderr[-500:]}")
    found = json.loads(line[1])
    if found["refused"] or found["broken"] * BROKEN >= found["requests"]:
        raise Trouble(f"{front.label}, {size} bytes, {connections} connections: {found}")
    return found


def timed(front, **how):
    """One run of wrk, and the front's processor time for it."""
    before = processor(front)
    found = load(front, **how)
    return {"rate": found["requests"] / found["seconds"], "p50": found["p50"], "p99": found["p99"],
            "cpu": (processor(front) - before) * 1e6 / found["requests"]}


def ask(browser, front, size=128, headers=HEADERS, body=None):
    """One page on a kept connection, checked, if its size is known."""
    page = ("GET", target(size)) if body is None else ("POST", "/b/upload")
    response = browser.fetch(*page, headers, body)
    if response.status != 200 or body is None and len(response.body) != size:
        raise Trouble(f"{front.label}: status {response.status}, {len(response.body)} bytes")


def posts(front, size, seconds):
    """A client sends a body again and again, and ends with a whole request: wrk would break
    the last ones off, and their time would be counted for nothing."""
    body, times = bytes(size), []
    with front.connect() as browser:
        ask(browser, front, body=body)
        before, end = processor(front), time.monotonic() + seconds
        while time.monotonic() < end:
            begin = time.monotonic()
            ask(browser, front, body=body)
            times.append(time.monotonic() - begin)
    return {"cpu": (processor(front) - before) * 1e6 / len(times),
            "p50": statistics.median(times) * 1e6}


def threads(pids):
    return [task for pid in pids for task in pathlib.Path(f"/proc/{pid}/task").iterdir()]


def traced(pids):
    """Whether strace has every thread."""
    return all("TracerPid:\t0\n" not in (task / "status").read_text() for task in threads(pids))


def system_calls(front, size):
    """System calls a request, counted by strace during a second of 16 connections."""
    out, pids = front.folder / "strace.out", family(front.process.pid)
    which = [word for pid in pids for word in ("-p", str(pid))]
    tracer = subprocess.Popen(["strace", "-f", "-c", "-o", out, *which], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: traced(pids) or tracer.poll() is not None, "strace has the front", 20)
        if tracer.poll() is not None:
            return None  # it may not look into processes here
        requests = load(front, size)["requests"]
    finally:
        tracer.send_signal(signal.SIGINT)
        tracer.wait(30)
    total = next(line for line in out.read_text().splitlines() if line.endswith(" total"))
    return int(total.split()[3]) / requests


def callgrind(front, what):
    """Has callgrind forget or write down what it has counted; gives whether that went well."""
    command = ["callgrind_control", what, str(front.process.pid)]
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, timeout=60, check=False).returncode == 0


def instructions(front, size):
    """User instructions a request, of a front that was started under callgrind."""
    with front.connect() as browser:
        for _ in range(WARM_UP):
            ask(browser, front, size)
        cleared = callgrind(front, "--zero")
        for _ in range(FEW):
            ask(browser, front, size)
        if not cleared or not callgrind(front, "--dump"):
            return None  # it may not be talked to here
    newest = max(front.folder.glob("callgrind.out.*"), key=lambda file: file.stat().st_mtime_ns)
    return int(re.search(r"^totals: (\d+)", newest.read_text(), re.M)[1]) / FEW
