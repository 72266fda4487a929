"""The programs under test, started with files of their own on free ports."""

import os
import pathlib
import signal
import subprocess
import time

from browser import Connection

BUILD = pathlib.Path(os.environ["VESK_BUILD"])
REDUCED = os.environ.get("VESK_E2E_SCALE") == "reduced"  # a slow build: less load


def wait_until(condition, what, seconds=60):
    """Polls until the condition gives something true, and gives that."""
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        assert time.monotonic() < deadline, f"in {seconds} s not: {what}"
        time.sleep(0.02)
    return result


class Program:
    """A child process whose output stands in files beside its configuration."""

    surroundings = {}  # what else subprocess.Popen is told

    def __init__(self, folder, name):
        self.folder = folder
        self.name = name
        self.process = None

    def launch(self, command):
        with open(self.path("out"), "wb") as out, open(self.path("err"), "ab") as err:
            self.process = subprocess.Popen(command, cwd=self.folder, stdin=subprocess.DEVNULL,
                                            stdout=out, stderr=err, **self.surroundings)
        return wait_until(self._listening, f"{self.name} listens")

    def _listening(self):
        assert self.running(), f"{self.name} ended with {self.process.poll()}: {self.errors()}"
        for line in self.path("out").read_text().splitlines(keepends=True):
            if line.startswith("listening on ") and line.endswith("\n"):
                return line.split()[-1]
        return None

    def path(self, ending):
        return self.folder / f"{self.name}.{ending}"

    def errors(self):
        return self.path("err").read_text(errors="replace")

    def running(self):
        return self.process is not None and self.process.poll() is None

    def children(self):
        """The processes that it has started: of httpd, those that serve."""
        tasks = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return [int(pid) for pid in tasks.read_text().split()]

    def signal(self, number):
        self.process.send_signal(number)

    def terminate(self):
        self.signal(signal.SIGTERM)

    def stop(self):
        """A clean end: exit status 0, which also says that no sanitizer complained."""
        self.terminate()
        assert self.process.wait(60) == 0, f"{self.name}: {self.errors()[-4000:]}"

    def kill(self):
        self.process.kill()
        self.process.wait(60)


class Backend(Program):
    """vesk-backend; a second start takes the address of the first."""

    def __init__(self, folder, rep_id, **options):
        super().__init__(folder, rep_id)
        self.rep_id = rep_id
        self.address = "127.0.0.1:0"
        self.options = {"mapcheck": 0, "proxyretryinterval": 1, **options}

    def start(self):
        command = [BUILD / "bin/vesk-backend", "--listen", self.address, "--rep-id", self.rep_id]
        for name, value in self.options.items():
            for one in value if isinstance(value, (list, tuple)) else [value]:
                command += ["--" + name.replace("_", "-"), str(one)]
        self.address = self.launch(command)
        return self


class Host(Program):
    """A web server with the connector: what scenarios may know of it.

    `init` holds the options of veskinit, `stages` the lines behind the built-in
    name translation, `directives` further lines of the server, `page` what the line
    of the status page says besides its path. `access` opens a connection as a
    browser does.
    """

    STAGES = ('ObjectType fn="veskfilter"', 'Service type="vesk-internal/*" fn="veskservice"')

    def __init__(self, folder, name="host", stages=STAGES, client_names=False, directives=(),
                 page=None, **init):
        super().__init__(folder, name)
        self.directives = directives
        self.page = page
        self.client_names = client_names  # headers may mean the web server's own words
        self.htdocs = folder / "htdocs"
        self.htdocs.mkdir(exist_ok=True)
        self.store = folder / "servers.store"
        self.stages, self.threads = stages, 32
        self.init = {"serverstore": self.store, "connecttimeout": 5, **init}
        self.address = None

    def init_line(self):
        values = [f'{key}="{value}"' for key, value in self.init.items() if value is not None]
        return " ".join(['fn="veskinit"', *values])

    def connect(self, **options):
        return Connection(self.address, **options)

    def fetch(self, target, method="GET", headers=(), body=None):
        with self.connect() as browser:
            return browser.fetch(method, target, headers, body)

    def serves(self, target="/demo/snoop"):
        """Whether a page comes; a connection may break while a program ends."""
        try:
            return self.fetch(target).status == 200
        except OSError:
            return False

    def check(self):
        """Checks the configuration without a start; gives exit status and output."""
        done = subprocess.run([*self.CHECK, self.path("conf")], capture_output=True, check=False,
                              timeout=60, text=True)
        return done.returncode, done.stdout + done.stderr

    def messages(self):
        """The lines of the error log; what the connector said ends a line."""
        log = self.path("log")
        return log.read_text(errors="replace").splitlines() if log.exists() else []

    def said(self, message):
        return any(message in line for line in self.messages())

    def wait_said(self, *messages):
        for message in messages:
            wait_until(lambda m=message: self.said(m), message)


class EmbeddedHost(Host):
    CHECK = (BUILD / "bin/vesk-host", "--check")
    command = (BUILD / "bin/vesk-host",)

    def start(self):
        stages, directives = list(self.stages), "\n".join(self.directives)
        if self.page is not None:
            stages.insert(1, 'Service fn="veskservice" report="status" path="/vesk-status" '
                          + self.page)
        stages = "\n".join(stages)
        self.path("conf").write_text(f"""# written by the tests
Listen 127.0.0.1:0
ServerName localhost
DocumentRoot htdocs
DirectoryIndex index.html index.jsp
Threads {self.threads}
ClientNames {"on" if self.client_names else "off"}
ErrorLog {self.name}.log
{directives}
Init fn="load-modules" shlib="{BUILD}/lib/veskconnector.so"
  funcs="veskinit,veskfilter,veskservice"
Init {self.init_line()}
<Object name="default">
NameTrans fn="document-root" root="htdocs"
{stages}
</Object>
""")
        address = self.launch([*self.command, self.path("conf")])
        name, port = address.removeprefix("http://").rsplit(":", 1)
        self.address = (name, int(port))
        return self
