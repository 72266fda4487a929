"""Fixtures: factories of servers and web servers, ended after each test."""

import os

import pytest

from fake_server import FakeServer
from httpd import HttpdHost
from processes import Backend, EmbeddedHost

HOSTS = {"embedded": EmbeddedHost, "httpd": HttpdHost}


class Site:
    """A folder of programs. All that still run at the end must end cleanly."""

    def __init__(self, folder):
        self.folder = folder
        self.programs = []
        self.fakes = []

    def backend(self, rep_id="s001", **options):
        return self._start(Backend(self.folder, rep_id, **options))

    def cluster(self, count, each=None, **options):
        """Servers s001, s002 ... that share one cluster file; `each` has its own options."""
        self.write_cluster(1, ["127.0.0.1:1"])  # until the ports are known
        servers = [self.backend(f"s{n:03}", cluster=self.cluster_file, **options, **own)
                   for n, own in enumerate(each or [{}] * count, start=1)]
        self.write_cluster(1, servers)
        return servers

    @property
    def cluster_file(self):
        return self.folder / "cluster"

    def write_cluster(self, sequence, servers):
        lines = [str(sequence)] + [getattr(server, "address", server) for server in servers]
        fresh = self.folder / "cluster.new"
        fresh.write_text("\n".join(lines) + "\n")
        fresh.replace(self.cluster_file)

    def fake(self, *args, **options):
        self.fakes.append(FakeServer(*args, **options))
        return self.fakes[-1]

    def host(self, bootstrap, kind=None, **options):
        bootstrap = getattr(bootstrap, "address", bootstrap)
        kind = kind or HOSTS[os.environ.get("VESK_E2E_HOST", "embedded")]
        return self._start(kind(self.folder, bootstrap=bootstrap, **options))

    def _start(self, program):
        self.programs.append(program)
        return program.start()

    def close(self):
        try:
            for program in reversed(self.programs):
                if program.process is not None:
                    assert program.process.poll() in (None, 0, -9), program.errors()
                    if program.running():
                        program.stop()
        finally:
            for program in self.programs:
                if program.running():
                    program.kill()
        for fake in self.fakes:
            fake.close()


@pytest.fixture
def site(tmp_path):
    made = Site(tmp_path)
    yield made
    made.close()


@pytest.fixture(scope="module")
def shared(tmp_path_factory):
    """One server and one web server for all tests of a file that change nothing."""
    made = Site(tmp_path_factory.mktemp("shared"))
    made.server = made.backend()
    made.web = made.host(made.server, verbose="true", metrics="true", apialloc="TRUE",
                         page='actions="on"')
    (made.web.htdocs / "hello.txt").write_text("a file\n")
    yield made
    made.close()


@pytest.fixture
def web(shared):
    return shared.web


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    made = Site(tmp_path_factory.mktemp("stage"))
    server = made.fake()
    yield server, made.host(server)
    made.close()


@pytest.fixture
def played(stage):
    """A played server without a past, and the web server before it."""
    server, host = stage
    server.drop_connections()
    server.serve = server.greet
    server.requests.clear()
    return server, host
