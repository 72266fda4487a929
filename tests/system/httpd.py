"""Apache httpd with mod_nsapi, private to a test: own folder, own port."""

import os
import pathlib
import shutil
import signal
import socket

from processes import BUILD, Host

MODULES = pathlib.Path(os.environ.get("VESK_HTTPD_MODULES", "/usr/lib/apache2/modules"))
HTTPD = shutil.which("apache2", path=os.environ.get("PATH", "") + ":/usr/sbin") or "apache2"
# What a module that was built with a sanitizer needs in httpd, which was not.
RUNTIME = os.environ.get("VESK_HTTPD_PRELOAD")
SANITIZED = ["env", f"LD_PRELOAD={RUNTIME}",
             "ASAN_OPTIONS=detect_leaks=0:quarantine_size_mb=1"] if RUNTIME else []
COMMAND = [*SANITIZED, HTTPD]
MPM = os.environ.get("VESK_E2E_MPM", "event")
LOADED = (f"mpm_{MPM}", "authz_core", "authz_host", "dir", "mime", "alias")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class HttpdHost(Host):
    """`modules` are loaded besides LOADED; `extra` stands at the end of the file,
    with {port} and {build} filled in. What is served stands in `site`."""

    CHECK = (*COMMAND, "-t", "-f")

    def __init__(self, folder, modules=(), extra="", **options):
        super().__init__(folder, **options)
        self.modules, self.extra = modules, extra

    def start(self):
        (self.folder / "types").touch()
        port = self.address[1] if self.address else free_port()
        self.address = ("127.0.0.1", port)
        self.path("conf").write_text(self.configuration())
        self.launch([*COMMAND, "-DFOREGROUND", "-f", self.path("conf")])
        return self

    def _listening(self):
        assert self.running(), f"{self.name} ended: {self.errors()} {self.messages()[-5:]}"
        try:
            socket.create_connection(self.address, 5).close()
        except ConnectionRefusedError:
            return None
        return self.said("resuming normal operations")

    def load_lines(self):
        return "\n".join(f"LoadModule {name}_module {MODULES}/mod_{name}.so"
                         for name in (*LOADED, *self.modules))

    def plugin_lines(self):
        stages = "\n".join(f"NSAPI{line}" for line in self.stages)
        return f"""LoadModule nsapi_module {BUILD}/lib/mod_nsapi.so
NSAPIInit fn="load-modules" shlib="{BUILD}/lib/veskconnector.so" \\
  funcs="veskinit,veskfilter,veskservice"
NSAPIInit {self.init_line()}
{stages}
NSAPIClientNames {"on" if self.client_names else "off"}"""

    def page_lines(self):
        return "" if self.page is None else f"""<Location "/vesk-status">
Require local
NSAPIObjectType none
NSAPIService fn="veskservice" report="status" {self.page}
</Location>"""

    def configuration(self):
        port = self.address[1]
        return f"""# written by the tests
ServerRoot "{self.folder}"
ServerName localhost:{port}
UseCanonicalName On
Listen 127.0.0.1:{port}
PidFile {self.name}.pid
DefaultRuntimeDir "{self.folder}"
{self.load_lines()}
ServerLimit {64 if MPM == "prefork" else 4}
StartServers 1
MaxRequestWorkers 64
<IfModule !mpm_prefork_module>
ThreadLimit 64
ThreadsPerChild 64
MinSpareThreads 8
</IfModule>
TypesConfig types
LogLevel info
ErrorLog "{self.path('log')}"
ErrorLogFormat "%t %l %M"
MaxKeepAliveRequests 0
KeepAliveTimeout 30
DocumentRoot "{self.htdocs}"
DirectoryIndex index.html index.jsp
<Directory "{self.htdocs}">
Require all granted
</Directory>
{self.plugin_lines()}
{self.page_lines()}
{self.extra.format(port=port, build=BUILD, folder=self.folder)}
"""

    def terminate(self):
        self.signal(signal.SIGWINCH)  # lets requests end

    def stop(self):
        super().stop()
        assert not self.said("Sanitizer") and not self.said("runtime error:"), self.messages()[-40:]
