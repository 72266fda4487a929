"""Which requests are the connector's, and what becomes of those that are not."""

import pytest
from processes import Host

FORCED = 'ObjectType fn="force-type" type="vesk-internal/mine" suffix=".jsp"'
SUFFIXES = {  # the stages, and whether /index.jsp is then the file of the web server
    "the web server": (Host.STAGES, True),
    "a type of the configuration brings them back": ((FORCED, *Host.STAGES), False)}


@pytest.mark.parametrize("stages,own", SUFFIXES.values(), ids=SUFFIXES.keys())
def test_suffix_mappings_can_be_left_to_the_web_server(site, stages, own):
    server = site.backend(mapping=["*.jsp=demo", "/only*.jsp=demo"])
    host = site.host(server, ignoresuffixmap="TRUE", stages=stages)
    for name in ("index.jsp", "file.txt"):
        (host.htdocs / name).write_text("a file")
    assert (host.fetch("/index.jsp").body == b"a file") == own
    assert b"s001" in host.fetch("/only/index.jsp").body
    assert host.fetch("/file.txt").body == b"a file"


def test_reserved_type_answers_503_for_what_the_filter_declined(site):
    stages = (Host.STAGES[0], 'ObjectType fn="force-type" type="vesk-internal/ext"', Host.STAGES[1])
    host = site.host(site.backend(), stages=stages)
    assert host.fetch("/elsewhere").status == 503
    assert b"s001" in host.fetch("/demo/").body


def test_source_stays_where_no_server_was_reached(site):
    forced = 'ObjectType fn="force-type" type="vesk-internal/ext" suffix=".jsf .jsp"'
    host = site.host("127.0.0.1:1", stages=(Host.STAGES[0], forced, Host.STAGES[1]))
    names = ("index.jsp", "a;b.jsp", "c.JSP", "jsp", "a.jsp.txt")
    for name in names:
        (host.htdocs / name).write_text("a file")
    seen = [host.fetch("/" + name).status for name in ("", "a.jsp;x=1.txt", *names)]
    assert seen == [503, 503, 503, 503, 503, 200, 200]


def test_folder_goes_to_its_index_file(site):
    host = site.host(site.backend())
    (host.htdocs / "app").mkdir()
    (host.htdocs / "app" / "index.jsp").write_text("the server's source")
    response = host.fetch("/app/")
    assert response.status == 200 and b"/app/index.jsp" in response.body
    assert b"source" not in response.body
