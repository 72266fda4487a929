"""Alerts and dashboard of packaging/."""

import json
import pathlib
import re
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
ALERTS = HERE.parents[1] / "packaging/vesk-alerts.yml"
DASHBOARD = json.loads((HERE.parents[1] / "packaging/vesk-grafana.json").read_text())


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
