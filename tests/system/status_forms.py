"""The forms of the status page, each read as strictly as its readers would."""

import csv
import io
import re
import subprocess

import html5lib

VALUE = r"-?[0-9]+(\.[0-9]+)?"
LABELS = r'[a-z_]+="(?:[^"\\\n]|\\["\\n])*"'
SAMPLE = re.compile(rf"([a-z_]+)(?:\{{({LABELS}(?:,{LABELS})*)\}})? ({VALUE})")
HEADS = re.compile(r"# HELP ([a-z_]+) .+[^ ]\n# TYPE \1 (gauge|counter|histogram)\n")


def labels_of(text):
    found = re.findall(r'([a-z_]+)="((?:[^"\\]|\\.)*)"', text or "")
    assert len(dict(found)) == len(found), f"a label twice: {text}"
    return {name: re.sub(r"\\(.)", r"\1", value) for name, value in found}


def read_family(name, kind, text, metrics):
    endings = ("_bucket", "_sum", "_count") if kind == "histogram" else ("",)
    assert (kind == "counter") == name.endswith("_total"), name
    for line in text.splitlines():
        sample = SAMPLE.fullmatch(line)
        assert sample and sample[1] in [name + ending for ending in endings], line
        key = (sample[1], *sorted(labels_of(sample[2]).items()))
        assert key not in metrics, f"twice: {line}"
        metrics[key] = float(sample[3])


def check_histogram(name, server, metrics):
    buckets = [(float(dict(key[1:])["le"]), value) for key, value in metrics.items()
               if key[0] == name + "_bucket" and dict(key[1:])["server"] == server]
    assert buckets == sorted(buckets) and len(set(le for le, _ in buckets)) == len(buckets)
    counts = [value for _, value in buckets]
    assert counts == sorted(counts) and buckets[-1][0] == float("inf")
    assert counts[-1] == metrics[name + "_count", ("server", server)]


def read_metrics(text):
    """Values by name and labels: what the text format asks for holds, or a test fails."""
    metrics = {}
    assert text.endswith("\n") and text.isprintable() is False and text.startswith("# HELP ")
    parts = HEADS.split(text)
    assert parts[0] == "" and len(set(parts[1::3])) == len(parts[1::3]), "a family twice"
    for name, kind, samples in zip(parts[1::3], parts[2::3], parts[3::3]):
        read_family(name, kind, samples, metrics)
    for key in list(metrics):
        if key[0].endswith("_seconds_count"):
            check_histogram(key[0].removesuffix("_count"), dict(key[1:])["server"], metrics)
    return metrics


def read_csv(text):
    head, *rows = csv.reader(io.StringIO(text.removeprefix("# "), newline=""), strict=True)
    assert all(len(row) == len(head) for row in rows)
    return [dict(zip(head, row)) for row in rows]


def read_html(page):
    """The document; a fault of any degree fails."""
    said = subprocess.run(["tidy", "-e", "-q", "-utf8"], input=page, capture_output=True,
                          check=False)
    assert (said.returncode, said.stderr) == (0, b""), said.stderr.decode()
    parser = html5lib.HTMLParser(strict=True, namespaceHTMLElements=False)
    return parser.parse(page.decode("utf-8"))


def counted(told):
    return [(server["requests"], server["served"]) for server in told["servers"]]


def read_forms(host, path="/vesk-status"):
    """The page in JSON, as metrics, as CSV and in HTML: valid, and of the same servers."""
    def form(name):
        page = host.fetch(f"{path}?format={name}")
        assert page.status == 200 and int(page.header("content-length")) == len(page.body)
        return page
    told, metrics = form("json").json(), read_metrics(form("prometheus").body.decode())
    rows, html = read_csv(form("csv").body.decode()), read_html(form("html").body)
    if counted(told) != counted(form("json").json()):
        return read_forms(host, path)  # an answer is there before it is counted
    for server, row in zip(told["servers"], rows, strict=True):
        name = server["server"]
        assert (row["svname"], row["replication_id"]) == (name, server["replicationId"])
        assert int(row["stot"]) == server["requests"] == \
            metrics["vesk_server_requests_total", ("server", name)]
        assert int(row["served"]) == server["served"] == \
            metrics["vesk_server_response_seconds_count", ("server", name)]
        for kind, count in server["errors"].items():
            assert count == metrics["vesk_server_errors_total", ("kind", kind), ("server", name)]
        assert (server["state"] in ("up", "draining")) == \
            metrics["vesk_server_up", ("server", name)]
    for mapping in told["mappings"]:
        hits = metrics.get(("vesk_mapping_hits_total", ("mapping", mapping["pattern"])), 0)
        assert hits == (0 if "?" in mapping["pattern"] else mapping["hits"])
    return told, metrics, rows, html
