"""URLs at each limit of length and one past it, and what else of a URL is refused, as a user meets it.

The URL as a whole is cut at 127 characters, so that the limits of a path (127) and of a query (255) can't be passed
from outside; those of the other pieces can.
"""
import socket

import pytest

from conftest import free_port, udp_port_open
from netns import island  # noqa: F401
from test_http import REQUEST, open_url, request_of

URL_LIMIT, AUTHORITY_LIMIT, PORT_LIMIT, INTERFACE_LIMIT = 127, 63, 31, 15


def errors(kvt):
    return [line.split("KVTI  ")[1] for line in kvt.log_text().splitlines() if "(ERR)" in line]


def refused(kvt, url, *args):
    """The error lines of a source that can't be opened."""
    assert kvt.run("-T", "-i", url, "-S", "x", *args) == 1
    assert "Reading (" not in kvt.log_text() and kvt.shared_memory() == []
    return errors(kvt)


@pytest.mark.parametrize("length", [URL_LIMIT - 1, URL_LIMIT, URL_LIMIT + 1, URL_LIMIT + 200])
@pytest.mark.parametrize("mark", ["/", "/?"], ids=["path", "query"])
def test_a_url_is_cut_at_127_characters(kvt, tcp_server, length, mark):
    """Silently; the settings in the log show what is left of it."""
    server = tcp_server()
    base = f"http://127.0.0.1:{server.port}"
    url = (base + mark).ljust(length - 1, "x") + "y"
    open_url(kvt, url)
    assert request_of(server.accept()).decode() == REQUEST.format(target=url[len(base):URL_LIMIT], version="1.1",
                                                                  host=f"127.0.0.1:{server.port}")
    assert f"\tURL            = {url[:URL_LIMIT]}\n" in kvt.log_text()


def test_a_path_as_long_as_the_url_lets_it_is_opened(kvt):
    path = kvt.folder / "x"
    path = path.with_name("x" * (URL_LIMIT - len(f"file://{path}") + 1))
    path.write_bytes(b"")
    kvt.run("-T", "-i", f"file://{path}", "-S", "x")
    assert "Reading (STM) from fd" in kvt.log_text()


def test_a_path_that_the_cut_leaves_short_is_another_path(kvt):
    path = kvt.folder / "x"
    path = path.with_name("x" * (URL_LIMIT - len(f"file://{path}") + 2))
    path.write_bytes(b"")
    assert refused(kvt, f"file://{path}") == [f"usock_open: open('{str(path)[:-1]}', 0, 0x0) ERROR(2): "
                                              "No such file or directory"]


def test_an_authority_of_63_characters_is_taken(kvt, tcp_server):
    server = tcp_server()
    open_url(kvt, f"http://{'u' * AUTHORITY_LIMIT}@127.0.0.1:{server.port}/a")
    assert request_of(server.accept()).startswith(b"GET /a HTTP/1.1\r\n")


@pytest.mark.parametrize("scheme", ["http", "udp", "file"])
def test_an_authority_of_64_characters_is_refused(kvt, scheme):
    url = f"{scheme}://{'u' * (AUTHORITY_LIMIT + 1)}@127.0.0.1:{free_port()}/a"
    assert refused(kvt, url) == ["extract: uri_get_authority ERROR", f"uri_extract: error parsing URI: [{url}]"]


@pytest.mark.parametrize("scheme", ["http", "udp", "tcp"])
def test_a_port_of_32_characters_is_refused(kvt, scheme):
    address = f"127.0.0.1:{'1' * (PORT_LIMIT + 1)}"
    lines = refused(kvt, f"{scheme}://{address}")
    assert lines[0] == f"uri_path_addrport: ERROR parsing path=[{address}]"
    if scheme == "http":  # by design the exchange is tried all the same
        assert lines[2] == f"fwd_http_rq: URI has no path tail: http://{address}"


def test_a_port_of_31_characters_comes_as_far_as_the_resolver(kvt):
    """Which has no line of its own for what it refuses."""
    assert refused(kvt, f"tcp://127.0.0.1:{'1' * PORT_LIMIT}") == []


@pytest.mark.parametrize("port, lines", [
    ("00", ["open_socket: empty or invalid port [00]"]),
    ("", ["open_socket: empty or invalid port []"]),
    ("x1", ["open_socket: empty or invalid port [x1]"]),
    ("12ab", []),  # begins as a number and is none: the resolver refuses it, without a line of its own
])
def test_a_port_that_is_none(kvt, port, lines):
    assert refused(kvt, f"tcp://127.0.0.1:{port}") == lines


def test_a_port_above_65535_is_taken_modulo_65536(kvt):
    """So does the resolver."""
    port = free_port()
    kvt.start("-T", "-i", f"udp://127.0.0.1:{port + 65536}", "-S", "x").wait_reading()
    assert udp_port_open(port)
    assert kvt.stop() == 0


def test_port_0_of_a_datagram_source_is_one_that_the_system_picks(kvt):
    kvt.start("-T", "-i", "udp://127.0.0.1:0", "-S", "x").wait_reading()
    assert kvt.stop() == 0


@pytest.mark.parametrize("scheme", ["httpsxy", "httpsxyz", "s" * 100])
def test_an_unknown_scheme_of_any_length_is_refused(kvt, scheme):
    url = f"{scheme}://127.0.0.1:1/"
    assert refused(kvt, url) == [f"uri_extract: error parsing URI: [{url}]"]


@pytest.mark.parametrize("url", ["https://127.0.0.1:1/", "srt://127.0.0.1:1", "rtsp://127.0.0.1:1/", "127.0.0.1:5000",
                                 "@239.1.1.1:5000", "/srv/a.ts", "a.ts", "udp:/127.0.0.1:5000",
                                 "udp:127.0.0.1:5000", "://127.0.0.1:5000"])
def test_what_is_no_url_of_a_known_kind_is_refused(kvt, url):
    assert refused(kvt, url) == [f"uri_extract: error parsing URI: [{url}]"]


def test_the_scheme_may_be_in_capitals_and_behind_blanks(kvt):
    port = free_port()
    kvt.start("-T", "-i", f" \tUDP://127.0.0.1:{port}", "-S", "x").wait_reading()
    assert kvt.stop() == 0


@pytest.mark.parametrize("tail", ["/", "/a/b", "?x=1", "/a?x=1"])
@pytest.mark.parametrize("kind", ["tcp", "udp", "rtp"])
def test_what_stands_behind_the_port_is_dropped(kvt, tcp_server, kind, tail):
    port = tcp_server().port if kind == "tcp" else free_port()
    kvt.start("-T", "-i", f"{kind}://127.0.0.1:{port}{tail}", "-S", "x").wait_reading()
    assert kvt.stop() == 0


def test_an_ipv6_address_needs_brackets(kvt_factory):
    port = free_port(host="::1")
    bare, bracketed = kvt_factory("bare"), kvt_factory("bracketed")
    refused(bare, f"udp://::1:{port}")
    bracketed.start("-T", "-i", f"udp://[::1]:{port}", "-S", "x").wait_reading()
    assert bracketed.stop() == 0


@pytest.mark.parametrize("url", ["udp://:5000", "tcp://:5000", "tcp:///127.0.0.1"])
def test_an_address_must_be_there(kvt, url):
    """An empty one is not the any address: that is written 0.0.0.0 or [::]."""
    assert refused(kvt, url) == (["open_socket: empty or invalid port []"] if url.endswith("0.0.1") else [])


@pytest.mark.parametrize("url, path", [("udp://[::1", "[::1"), ("udp://[::1/a]:5000", "[::1/a]:5000")])
def test_an_address_that_does_not_end_is_refused(kvt, url, path):
    assert refused(kvt, url)[0] == f"uri_path_addrport: ERROR parsing path=[{path}]"


def test_an_interface_name_is_cut_at_15_characters_on_the_command_line(kvt):
    name = "i" * INTERFACE_LIMIT
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "x", "-m", name + "j").wait_reading()
    assert f"\tMulticast ifc  = {name}\n" in kvt.log_text()


def test_an_interface_name_of_15_characters_in_the_configuration_is_passed_over(kvt):
    kvt.write_config(extra=f'source: {{ mcast_ifc = "{"i" * INTERFACE_LIMIT}"; }};')
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "x").wait_reading()
    assert "\tMulticast ifc  = all\n" in kvt.log_text()


def test_a_tcp_host_with_two_addresses_is_tried_at_each(kvt_factory, island, tmp_path):
    """Where nobody listens at the first, the second opens the source, and the log keeps the error of the first."""
    hosts = tmp_path / "hosts"
    hosts.write_text("::1 twofold\n127.0.0.1 twofold\n")
    with_hosts = ["unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/hosts && exec "$@"', hosts]
    told = []
    for family, address in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")):
        kvt = kvt_factory(address.replace(":", "-"))
        with island.socket(family, socket.SOCK_STREAM) as listener:
            listener.bind((address, 5000))
            listener.listen()
            kvt.start("-T", "-i", "tcp://twofold:5000", "-S", "x", inside=[*island.inside, *with_hosts])
            kvt.wait_reading()
            assert kvt.stop() == 0
        told += errors(kvt)
    assert len(told) == 1 and "ERROR(111): Connection refused" in told[0]
