#!/usr/bin/env python3
"""Checks that a request costs what recorded.md says, or writes there what it costs.

Counted in httpd with the connector are system calls, heap calls and instructions, never
time. With the compiler and the packages of the record everything must lie within 5 %, be
it above or below: a gain that isn't recorded can be lost unseen. Elsewhere only what is
mostly the connector's is compared, within 25 %. The exit status is 0 if all fits, 1 if
not, and 77 if a tool is missing and the rest fits.
"""

import argparse
import collections
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
os.environ.setdefault("VESK_BUILD", str(HERE.parent.parent / "build"))
sys.path.insert(0, str(HERE.parent / "system"))

from httpd import HttpdHost
from processes import BUILD, Backend

RECORD = HERE / "recorded.md"
MAPPINGS = ["/demo/*=demo", *(f"/application{n}/*=a{n}" for n in range(18)), "*.jsp=demo"]
SHAPES = {  # what is asked for, and of how many servers; the entry point that is looked at
    "page": ("/demo/bytes?n=128", 1, "veskservice"),
    "miss": ("/plain.txt", 3, "veskfilter"),
}
WARM_UP, REQUESTS = 30, 200
PAUSE = 0.005  # before each request: all threads of httpd wait again
# Up to the scheduler: how threads sleep and wake each other, and whether the next request
# is there when a thread of httpd has answered one and looks for it.
SCHEDULED = re.compile(r"futex|epoll_\w+|read\(.*EAGAIN")
RARE = 0.05  # what comes by the second, and not by the request
SAME, ELSEWHERE = 0.05, 0.25  # what a number may differ by: same tools, or others
COMPARED_ELSEWHERE = re.compile("all system calls|heap calls|instructions in ")
NUMBER = re.compile(r"^\| (.+?) \| ([\d.]+) \| (.*?) *\|$", re.M)
VERSION = re.compile(r"^- ([\w-]+): (.*)$", re.M)
HEAD = """# What a request costs

Written by `cost.py --record`, which keeps the reasons. Counts are for each request of 200.

{}

| what | count | why |
|---|--:|---|
{}
"""

# With two threads httpd closes a kept connection when both happen to be busy.
LIMITS = """
LogLevel warn
ThreadsPerChild 4
MaxRequestWorkers 4
MinSpareThreads 1
<Directory />
AllowOverride None
</Directory>
"""


class Httpd(HttpdHost):
    """httpd in one process, under a tool."""

    def __init__(self, folder, tool, target, bootstrap):
        super().__init__(folder, extra=LIMITS, bootstrap=bootstrap, guards="all", events="true")
        self.tool, self.target = tool, target
        (self.htdocs / "plain.txt").write_text("a file of the web server\n")

    def launch(self, command):
        return super().launch([*self.tool, *command, "-DONE_PROCESS"])

    def _listening(self):
        assert self.running(), f"{self.name} ended: {self.errors()} {self.messages()[-5:]}"
        return self.serves(self.target)


class Bench:
    """A web server under a tool, with its servers; each measurement has its own."""

    def __init__(self, folder, shape):
        self.folder, self.programs = folder, []
        self.target, self.servers, self.entry = SHAPES[shape]

    def start(self, *tool):
        self.write_cluster(["127.0.0.1:1"])  # until the ports are known
        servers = [self.run(Backend(self.folder, f"s00{n}", cluster=self.folder / "cluster",
                                    mapping=MAPPINGS)).address for n in range(self.servers)]
        self.write_cluster(servers)
        web = self.run(Httpd(self.folder, tool, self.target, servers[0]))
        self.pid = str(web.process.pid)
        self.browser = web.connect()
        self.ask(WARM_UP)

    def write_cluster(self, addresses):
        (self.folder / "cluster").write_text("\n".join(["1", *addresses, ""]))

    def run(self, program):
        self.programs.append(program)
        return program.start()

    def close(self):
        """Nobody has to end well: what is wanted of them is on file."""
        for program in self.programs:
            if program.running():
                program.kill()

    def ask(self, count=REQUESTS):
        for _ in range(count):
            time.sleep(PAUSE)
            assert self.browser.fetch("GET", self.target).status == 200
        time.sleep(0.2)  # the last request is over when its thread waits again


def system_calls(bench):
    log = bench.folder / "calls"
    bench.start("strace", "-D", "-f", "-qq", "-o", log)
    before = log.stat().st_size
    bench.ask()
    lines = log.read_bytes()[before:].decode().splitlines()
    calls = [found for line in lines if (found := re.match(r"\d+ +((\w+)\(.*)", line))]
    counts = collections.Counter(call[2] for call in calls if not SCHEDULED.match(call[1]))
    yield "all system calls", counts.total() / REQUESTS
    for name, count in counts.items():
        if count > RARE * REQUESTS:
            yield f"system calls: {name}", count / REQUESTS


def heap_calls(bench):
    count = bench.folder / "heap"
    library = BUILD / "tests/lib/count_allocations.so"
    bench.start("env", f"LD_PRELOAD={library}", f"VESK_HEAP_COUNT={count}")
    before = int.from_bytes(count.read_bytes(), sys.byteorder)
    bench.ask()
    yield "heap calls", (int.from_bytes(count.read_bytes(), sys.byteorder) - before) / REQUESTS


def instructions(bench):
    bench.start("valgrind", "--tool=callgrind", "--instr-atstart=no",
                f"--callgrind-out-file={bench.folder}/profile")
    control("-i", "on", bench.pid)
    bench.ask()
    control("-d", bench.pid)
    table = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100",
                            bench.folder / "profile.1"], check=True, capture_output=True,
                           text=True).stdout
    for what, pattern in (("instructions of httpd", "PROGRAM TOTALS"),
                          (f"instructions in {bench.entry}", rf"\S+:{bench.entry} ")):
        found = re.search(rf"^ *([\d,]+) .*{pattern}", table, re.M)
        yield what, int(found[1].replace(",", "")) / REQUESTS


def control(*arguments):
    subprocess.run(["callgrind_control", *arguments], check=True, capture_output=True)


TOOLS = {"system calls": (system_calls, "strace"), "heap calls": (heap_calls, "env"),
         "instructions": (instructions, "valgrind")}


def measure(take, shape):
    # A path of fixed length and depth: httpd looks at each of its folders.
    with tempfile.TemporaryDirectory(prefix="cost", dir="/tmp") as folder:
        os.chmod(folder, 0o755)  # a root's httpd serves as somebody else
        bench = Bench(pathlib.Path(folder), shape)
        try:
            return {f"{shape}, {what}": round(count, 2 if count < 100 else None)
                    for what, count in take(bench)}
        finally:
            bench.close()


def first_line(command):
    done = subprocess.run(f"{command} 2>&1", shell=True, capture_output=True, text=True,
                          check=False)
    return done.stdout.partition("\n")[0]


def versions():
    """What the numbers depend on besides the sources."""
    cache = (BUILD / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M)[1]
    return {"machine": platform.machine(),
            "compiler": first_line(f"'{compiler}' --version").partition(" ")[2],
            **{package: first_line(f"dpkg-query -W -f '${{Version}}' {package}")
               for package in ("libc6", "apache2-bin", "valgrind")}}


def recorded():
    """The versions, and count and reason by name."""
    text = RECORD.read_text() if RECORD.exists() else ""
    return dict(VERSION.findall(text)), {name: (float(count), why)
                                         for name, count, why in NUMBER.findall(text)}


def record(made_with, numbers):
    """Each number keeps its reason; a new one waits for its own, and fails till then."""
    _, known = recorded()
    rows = [f"| {name} | {count:g} | {known.get(name, (0, ''))[1]} |"
            for name, count in numbers.items()]
    made = [f"- {what}: {version}" for what, version in made_with.items()]
    RECORD.write_text(HEAD.format("\n".join(made), "\n".join(rows)))


def fault(count, expected, why, margin):
    """What is wrong with a number; nothing if it fits."""
    if abs(count - expected) > max(margin * expected, RARE):
        return f"  <-- over {margin:.0%} off"
    return "" if why else "  <-- recorded without a reason"


def check(made_with, numbers, skipped):
    known_with, known = recorded()
    margin, wanted = SAME, ""
    if made_with != known_with:
        print(f"Recorded with {known_with},\nmeasured with {made_with}: less is compared.")
        margin, wanted = ELSEWHERE, COMPARED_ELSEWHERE
    names = [name for name in known | numbers
             if re.search(wanted, name) and not any(kind in name for kind in skipped)]
    faults = 0
    for name in names:
        count, (expected, why) = numbers.get(name, 0), known.get(name, (0, ""))
        wrong = fault(count, expected, why, margin)
        faults += bool(wrong)
        print(f"{count:10g} {expected:10g}  {name}{wrong}")
    if faults:
        print(f"{faults} wrong. CONTRIBUTING.md, \"What a request costs\", tells what to do.")
    return faults


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--record", action="store_true", help="write the numbers anew")
    options = parser.parse_args()
    skipped = [kind for kind, (_, tool) in TOOLS.items() if not shutil.which(tool)]
    for kind in skipped:
        print(f"{TOOLS[kind][1]} is missing: no {kind} are counted")
    numbers = {}
    for shape in SHAPES:
        for kind in (kind for kind in TOOLS if kind not in skipped):
            numbers |= measure(TOOLS[kind][0], shape)
    if options.record:
        sys.exit("all tools are needed to record") if skipped else record(versions(), numbers)
    elif check(versions(), numbers, skipped):
        sys.exit(1)
    elif skipped:
        sys.exit(77)


if __name__ == "__main__":
    main()
