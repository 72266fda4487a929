"""Alerts and dashboard of packaging/, against what the status page tells."""

import json
import pathlib
import re
import subprocess

from processes import Host, wait_until

HERE = pathlib.Path(__file__).resolve().parent
ALERTS = HERE.parents[1] / "packaging/vesk-alerts.yml"
DASHBOARD = json.loads((HERE.parents[1] / "packaging/vesk-grafana.json").read_text())
PAGE = 'Service fn="veskservice" report="status" path="/vesk-status"'
NAME = re.compile(r"\bvesk_\w+")


def promtool(*arguments):
    done = subprocess.run(["promtool", *arguments], capture_output=True, text=True, timeout=60,
                          check=False)
    assert done.returncode == 0, done.stdout + done.stderr


def expressions():
    """Those of the dashboard, as Grafana would send them."""
    for panel in DASHBOARD["panels"]:
        for target in panel["targets"]:
            yield re.sub(r"\$(web|server)\b", ".*",
                         target["expr"].replace("$__rate_interval", "5m"))


def test_alerts_come_when_they_should():
    promtool("check", "rules", ALERTS)
    promtool("test", "rules", HERE / "alerts.yml")


def test_dashboard_asks_what_prometheus_understands(tmp_path):
    rules = [{"record": f"panel:{n}", "expr": expr} for n, expr in enumerate(expressions())]
    path = tmp_path / "rules.yml"
    path.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": rules}]}))
    promtool("check", "rules", path)
    places = [panel["gridPos"] for panel in DASHBOARD["panels"]]
    cells = [(x, y) for at in places for x in range(at["x"], at["x"] + at["w"])
             for y in range(at["y"], at["y"] + at["h"])]
    assert len(cells) == len(set(cells)) and max(cells)[0] == 23, "panels lie on each other"


def test_page_tells_all_that_is_asked_for(site):
    host = site.host(site.cluster(2)[0], stages=(PAGE, *Host.STAGES))
    assert host.serves()
    page = host.fetch("/vesk-status?format=prometheus").body.decode()
    done = subprocess.run(["promtool", "check", "metrics"], input=page, capture_output=True,
                          text=True, timeout=60, check=False)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")
    told = {re.sub(r"_(bucket|sum|count)$", "", name) for name in NAME.findall(page)}
    asked = NAME.findall(re.sub(r"#.*|https?:\S+|/vesk-\S+", "", ALERTS.read_text()))
    asked += [name for expr in expressions() for name in NAME.findall(expr)]
    missing = {name for name in asked if re.sub(r"_bucket$", "", name) not in told}
    assert not missing and len(set(asked)) > 12
    kinds = set(re.findall(r'kind="(\w+)"', page))
    assert {"busy", "client"} <= kinds, "alerts name them"


def test_server_that_has_left_is_no_alarm(site):
    servers = site.cluster(2)
    host = site.host(servers[0], stages=(PAGE, *Host.STAGES), guards="all")
    left = servers[1].address

    def lines():
        assert host.serves()
        page = host.fetch("/vesk-status?format=prometheus").body.decode()
        return dict(re.findall(rf'^(\w+){{server="{left}"}} (\d+)', page, re.M))

    wait_until(lambda: int(lines().get("vesk_server_requests_total", 0)) > 0, "both serve")
    assert lines()["vesk_server_up"] == "1"
    site.write_cluster(2, servers[:1])
    wait_until(lambda: "vesk_server_up" not in lines(), "it has left")
    assert int(lines()["vesk_server_requests_total"]) > 0
