"""The dissector of packaging/, on captures of real conversations, whole and damaged."""

import pathlib
import random
import subprocess
from collections import Counter

import pytest

from relay import Relay

DISSECTOR = pathlib.Path(__file__).resolve().parents[2] / "packaging/vesk.lua"
HEAD = 40  # IPv4 and TCP


@pytest.fixture
def relay(site):
    """One through which a server was asked for pages, bodies in both directions and more."""
    relay = Relay()
    site.write_cluster(1, [relay])
    relay.server = site.backend("A001", cluster=site.cluster_file, load_value=7).address
    host = site.host(relay, guards="all")
    cookie = [("Cookie", "JSESSIONID=A001xyTRB002")]
    assert host.fetch("/demo/snoop?header=host&realpath=/x", headers=cookie).status == 200
    assert host.fetch("/demo/attribute?name=colour&value=blue").status == 200
    assert host.fetch("/demo/busy").status == 503
    assert host.fetch("/demo/status?code=404").status == 404
    assert len(host.fetch("/demo/bytes?n=200000").body) == 200000
    assert host.fetch("/demo/echo", "POST", body=b"x" * 60000).body == b"x" * 60000
    host.stop()
    yield relay
    relay.close()


def run(path, *options):
    done = subprocess.run(["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", path, *options],
                          capture_output=True, text=True, errors="replace", timeout=60, check=False)
    text = done.stdout + done.stderr
    assert done.returncode == 0 and "Lua" not in text, text[-3000:]
    assert "Malformed" not in text and "Dissector bug" not in text
    return done.stdout


def values(path, *fields):
    """What stands in each field, each time, in all frames."""
    lines = run(path, "-2", "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=\x01",
                *(word for field in fields for word in ("-e", field))).split("\n")
    columns = zip(*(line.split("\t") for line in lines if "\t" in line))
    return [[one for cell in column for one in cell.split("\x01") if one] for column in columns]


def test_conversations_are_shown_whole(relay, tmp_path):
    path = tmp_path / "whole.pcap"
    relay.write(path)
    commands, bad, uris, queries, sets, sizes, bodies, statuses, headers, asked = values(
        path, "vesk.command", "vesk.bad", "vesk.uri", "vesk.query_string", "vesk.set",
        "vesk.body.length", "vesk.body", "vesk.status", "vesk.header", "vesk.wanted")
    count = Counter(map(int, commands))
    assert not bad and count[39] == len(uris) >= 6 and count[38] >= 1 and count[41] >= 4
    assert count[9] + count[38] == count[39] + count[13] and count[12] >= 2 and count[15] == count[16] == len(asked)
    assert set(uris) == {f"/demo/{page}"
                         for page in "snoop attribute busy status bytes echo".split()}
    assert "name=colour&value=blue" in queries and Counter(statuses) == {"200": 4, "404": 1}
    assert set(sets) == {"server-props", "servlet-mappings", "clustered-servers"}
    assert sum(map(len, bodies)) / 2 == sum(map(int, sizes)) > 200000 + 2 * 60000
    assert "cookie: JSESSIONID=A001xyTRB002" in headers
    sessions, properties, times, sequences, questions, replies, attributes = values(
        path, "vesk.session_id", "vesk.property", "vesk.time", "vesk.sequence", "vesk.asked",
        "vesk.reply", "vesk.attribute")
    assert questions == ["host", "/x"] and replies[0] == "localhost"
    assert replies[1].endswith("/htdocs/x") and "colour" in attributes
    assert sessions == ["A001xyTRB002"] and "rep_id=A001" in properties
    assert len(times) == count[39] + count[13] and max(map(float, times)) < 10 and set(sequences) == {"1"}


def test_damage_is_shown_and_harms_nothing(relay, tmp_path):
    dice = random.Random(4)

    def flip(_, packet):
        damaged = bytearray(packet)
        for _ in range(3 if len(packet) > HEAD else 0):
            damaged[dice.randrange(HEAD, len(damaged))] = dice.randrange(256)
        return bytes(damaged)

    def lie(number, packet):
        """A length of almost 2 GiB, then a negative one, in place of the second word."""
        word = (b"\x7f\xff\xff\xf0", b"\xff\xff\xff\xf0")[number % 2]
        return packet[:HEAD + 4] + word + packet[HEAD + 8:] if len(packet) > HEAD + 8 else packet

    changes = {"flip": flip, "lie": lie,
               "short": lambda _, packet: packet[:HEAD + 30],
               "lost": lambda number, packet: None if number % 7 == 5 else packet,
               "late": lambda number, packet: None if number < 9 else packet}
    for name, change in changes.items():
        path = tmp_path / f"{name}.pcap"
        relay.write(path, change)
        port = f"tcp.port=={relay.port},vesk"
        shown = run(path, "-2", "-V", "-d", port)
        assert "Vesk proxy protocol" in shown, name
        assert name != "lie" or "Expert Info (Error/Protocol)" in shown
