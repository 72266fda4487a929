"""The pages of a server as a browser gets them through the web server."""

import pytest


def test_index_is_a_page_for_people(web):
    hostile = [("X-A", "</td><b>")]
    response = web.fetch("/demo/index.jsp?name=%3Cb%3E", headers=hostile)
    assert response.status == 200
    assert response.header("content-type").startswith("text/html")
    assert b"s001" in response.body and b"<b>" not in response.body


VARIABLES = {
    "QUERY_STRING": "realpath=/a%2520b&header=HTTPS", "SCRIPT_NAME": "/demo/snoop", "PATH_INFO": "",
    "REMOTE_HOST": "127.0.0.1", "REMOTE_ADDR": "127.0.0.1", "SERVER_NAME": "localhost",
    "SERVER_PROTOCOL": "HTTP/1.1", "PATH_TRANSLATED": "", "SERVER_PORT_SECURE": "0",
    "REMOTE_USER": "", "AUTH_TYPE": ""}


@pytest.mark.parametrize("method,body", [("GET", None), ("POST", b"x=1"), ("DELETE", None)])
def test_all_variables_and_headers_reach_the_server(web, method, body):
    headers = [("Host", "front"), ("X-Two", "2"), ("Accept", "a, b"), ("X-Empty", ""), ("X-1", "1")]
    seen = web.fetch("/demo/snoop?" + VARIABLES["QUERY_STRING"], method, headers, body).json()
    assert seen["variables"] == {**VARIABLES, "REQUEST_METHOD": method,
                                 "SERVER_PORT": str(web.address[1])}
    assert (seen["method"], seen["uri"]) == (method, "/demo/snoop")
    assert seen["session_id"] is None and seen["extra"] is None and seen["attributes"] == []
    assert seen["get_realpath"] == [["/a%20b", f"{web.htdocs}/a%20b"]]
    assert seen["get_header"] == [["HTTPS", "OFF"]]
    sent = [[name.lower(), value] for name, value in headers]
    assert seen["headers"] == sent + ([["content-length", "3"]] if body else [])


@pytest.mark.parametrize("target,uri,query,session", [
    ("/demo/snoop", "/demo/snoop", "", None), ("/demo/snoop?", "/demo/snoop", "", None),
    ("/demo/snoop?a?b=%41", "/demo/snoop", "a?b=%41", None),
    ("/demo/a%2520b%20c/snoop;p=1", "/demo/a%20b c/snoop;p=1", "", None),
    ("/demo/snoop;JSESSIONID=s001", "/demo/snoop;JSESSIONID=s001", "", "s001")])
def test_path_is_decoded_once_and_the_query_never(web, target, uri, query, session):
    seen = web.fetch(target).json()
    assert (seen["uri"], seen["variables"]["QUERY_STRING"]) == (uri, query)
    assert seen["session_id"] == session


@pytest.mark.parametrize("code", [200, 201, 204, 302, 304, 400, 401, 403, 404, 418, 500, 502, 503])
def test_status_and_body_of_the_server_pass_through(web, code):
    response = web.fetch(f"/demo/status?code={code}")
    assert response.status == code and response.complete
    if code in (204, 304):
        assert response.body == b""
    else:
        assert f"<title>{code} ".encode() in response.body
    assert response.header("location") == ("index.jsp" if code == 302 else None)


@pytest.mark.parametrize("target", ["/demo/bytes?n=100000", "/demo/upload", "/hello.txt",
                                    "/demo/status?code=404"])
def test_head_has_the_headers_of_get_and_no_body(web, target):
    got = web.fetch(target)
    with web.connect() as browser:
        head = browser.fetch("HEAD", target)
        for name in ("content-type", "content-length"):
            assert head.header(name) == got.header(name)
        assert head.status == got.status
        assert browser.fetch("GET", "/hello.txt").body == b"a file\n"


def test_files_and_misses_are_the_web_servers_own(web):
    (web.htdocs / "sub").mkdir(exist_ok=True)
    (web.htdocs / "sub" / "index.html").write_text("folder")
    (web.htdocs / "big.bin").write_bytes(bytes(1_000_000))
    for target, status, body in (
            ("/hello.txt", 200, b"a file\n"), ("/big.bin", 200, bytes(1_000_000)),
            ("/sub/", 200, b"folder"), ("/none.txt", 404, None), ("/demonstration", 404, None)):
        response = web.fetch(target, headers=[("X-Any", "1")])
        assert response.status == status
        assert body is None or response.body == body


# A web server may refuse such a path or resolve it before anybody sees it.
@pytest.mark.parametrize("target", [
    "/../host.conf", "/%2e%2e/host.conf", "/sub/../../host.conf", "/..%2fhost.conf",
    "/hello.txt%00.jsp", "/demo/../secret", "/demo/./x", "/demo/..", "/demo/%2e%2e/x"])
def test_insecure_path_reaches_neither_files_nor_a_server(web, target):
    response = web.fetch(target)
    assert response.status in (400, 403, 404)
    assert b"Listen" not in response.body and not web.said("uri: /demo/.")
