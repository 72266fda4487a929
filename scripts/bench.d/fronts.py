"""What is measured: programs that forward a request, each on a port of its own of 127.0.0.1.

All httpd have one child of 64 threads, as many as vesk-host has; nginx and HAProxy have one
worker, since the client and the server behind need a core, too. Every kept-alive connection
stays, on both sides, and nobody writes an access log.
"""

import os
import pathlib
import shutil
import socket
import subprocess

from browser import Connection
from httpd import HttpdHost, MODULES, free_port
from processes import EmbeddedHost, Program

THREADS = 64
# Valgrind counts the one instruction that copies a long block once a byte: do without it.
VALGRIND = ("env", "GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=2000000000", "valgrind",
            "--tool=callgrind", "--callgrind-out-file=callgrind.out")
SIZES = (128, 8 << 10, 1 << 20)  # bytes of a page
ANSWER = pathlib.Path(__file__).resolve().parents[2] / "bench/mod_answer.c"
COMMON = """LogLevel warn
KeepAliveTimeout 60
LimitRequestFields 300
AsyncRequestWorkerFactor 20
ThreadLimit {threads}
ThreadsPerChild {threads}
MaxRequestWorkers {threads}
<Directory />
AllowOverride None
</Directory>
"""


def target(size):
    return f"/b/bytes?n={size}"


def program(name):
    """The path of a program; those of administrators may not be in PATH."""
    return shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")


def accepts(address):
    try:
        socket.create_connection(address, 5).close()
    except ConnectionRefusedError:
        return None
    return address


class Httpd(HttpdHost):
    def __init__(self, folder, threads=THREADS, **options):
        super().__init__(folder, extra=COMMON.format(threads=threads), **options)


class Embedded(EmbeddedHost):
    def __init__(self, folder, threads=THREADS, **options):
        super().__init__(folder, **options)
        self.threads = threads


class CountedHttpd(Httpd):
    """One process under callgrind; it does not say that it is ready."""

    def launch(self, command):
        return super().launch([*VALGRIND, *command, "-DONE_PROCESS"])

    def _listening(self):
        assert self.running(), f"{self.name} ended: {self.errors()}"
        return accepts(self.address)


class CountedEmbedded(Embedded):
    def launch(self, command):
        return super().launch([*VALGRIND, *command])


class AnsweringHttpd(Httpd):
    """Asks nobody: what any way of forwarding costs in httpd at least."""

    def plugin_lines(self):
        return f"LoadModule answer_module {self.folder}/.libs/mod_answer.so"

    def start(self):
        shutil.copy(ANSWER, self.folder)
        done = subprocess.run([program("apxs"), "-c", ANSWER.name], cwd=self.folder, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        assert done.returncode == 0, f"apxs can't compile {ANSWER}:\n{done.stdout[:2000]}"
        return super().start()


class ProxyingHttpd(Httpd):
    def __init__(self, folder, server, **options):
        super().__init__(folder, modules=("proxy", "proxy_http"), **options)
        self.server = server

    def plugin_lines(self):
        return f"ProxyPass /b/ http://127.0.0.1:{self.server}/b/ max={THREADS}"


class Configured(Program):
    """A program with one configuration file, which listens on `address`."""

    def start(self):
        self.address = ("127.0.0.1", free_port())
        self.path("conf").write_text(self.configuration())
        self.launch(self.command())
        return self

    def _listening(self):
        assert self.running(), f"{self.name} ended: {self.errors()}"
        return accepts(self.address)

    def connect(self):
        return Connection(self.address)


class Nginx(Configured):
    def __init__(self, folder, server=None):
        super().__init__(folder, "nginx")
        self.server = server

    def command(self):
        return [program("nginx"), "-e", self.path("log"), "-p", self.folder,
                "-c", self.path("conf")]

    def before(self):
        return f"upstream app {{ server 127.0.0.1:{self.server}; keepalive {THREADS};" \
               " keepalive_requests 1000000000; }"

    def location(self):
        return "proxy_pass http://app; proxy_http_version 1.1;" \
               " proxy_set_header Connection ''; proxy_max_temp_file_size 0;"

    def configuration(self):
        user = "user root;" if os.geteuid() == 0 else ""  # nobody else may enter the folder
        kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        paths = " ".join(f"{kind}_temp_path {self.folder}/{kind};" for kind in kinds)
        return f"""{user}
worker_processes 1;
daemon off;
pid {self.path("pid")};
events {{ worker_connections 4096; }}
http {{
  access_log off;
  keepalive_requests 1000000000;
  keepalive_timeout 60s;
  {paths}
  {self.before()}
  server {{
    listen {self.address[0]}:{self.address[1]};
    location /b/ {{ {self.location()} }}
  }}
}}
"""


class Files(Nginx):
    """The HTTP server behind those that forward over HTTP: pages from files kept open."""

    def start(self):
        for size in SIZES:
            (self.folder / str(size)).write_bytes(bytes(size))
        return super().start()

    def before(self):
        return "open_file_cache max=10; etag off; sendfile on; tcp_nopush on;"

    def location(self):
        return f"root {self.folder}; try_files /$arg_n =404;"


class Haproxy(Configured):
    def __init__(self, folder, server):
        super().__init__(folder, "haproxy")
        self.server = server

    def command(self):
        return [program("haproxy"), "-db", "-f", self.path("conf")]

    def configuration(self):
        return f"""global
  nbthread 1
  maxconn 4000
defaults
  mode http
  http-reuse always
  timeout connect 5s
  timeout client 60s
  timeout server 60s
frontend browsers
  bind {self.address[0]}:{self.address[1]}
  default_backend servers
backend servers
  server s1 127.0.0.1:{self.server}
"""
