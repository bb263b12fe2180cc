"""The example service `front` as a process: real clients, bad requests on raw sockets, load, time-outs, its end."""
import os
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import threading
import time
from collections import namedtuple
from contextlib import contextmanager

import pytest

from conftest import BUILD, DEADLINE, ROOT, free_port, need, wait_until
from service import builds, listening_socket

SEGMENT = (ROOT / "tests/data/sample.ts").read_bytes()
PLAYLIST = b"#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:20\n#EXTINF:15.0,\n1.ts\n#EXT-X-ENDLIST\n"
HEAD_MAX = 8192    # bytes of a request's head
TARGET_MAX = 2047  # of its target
BIG = 64 << 20     # more than the sockets of a connection hold
TURN_REPLIES = 16  # of a connection, until the others have their turn
REFUSED_MAX = 20   # connections above the maximum that are told so

Reply = namedtuple("Reply", "status headers body head")


class Front:
    def __init__(self, folder):
        self.folder = folder
        self.port = free_port(socket.SOCK_STREAM)
        self.root = folder / "root"
        (self.root / "ch").mkdir(parents=True)
        self.put("ch/1.ts", SEGMENT)
        self.put("ch/live.m3u8", PLAYLIST)
        self.put("a.txt", b"hello\n")
        (folder / "secret").write_bytes(b"secret")
        self.log_path = folder / "front.log"
        self.build = BUILD
        self.process = None

    def put(self, name, data):
        (self.root / name).write_bytes(data)
        return data

    def big(self):
        path = self.root / "big.ts"
        if not path.exists():  # it may be on its way out already
            with path.open("wb") as out:
                out.truncate(BIG)

    def start(self, extra="", build=BUILD, limit=None, user='( { alias = "http"; port = PORT; } )', under=()):
        if "user_request_timeout" not in extra:  # long: a busy machine makes slow peers of all
            extra += f" user_request_timeout = {DEADLINE * 1000};"
        config = self.folder / "front.conf"
        config.write_text(f'front: {{ root = "{self.root}"; user: {user.replace("PORT", str(self.port))};'
                          f" max_to_accept = 128; {extra} }};")
        return self.run("-C", config, build=build, limit=limit, under=under)

    def run(self, *args, build=BUILD, limit=None, under=()):
        def set_limit():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            if limit:
                resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))

        self.build = build
        self.process = subprocess.Popen([*under, build / "example_front", "-v", *args],
                                        stderr=self.log_path.open("wb"), preexec_fn=set_limit)
        wait_until(lambda: "Entering event loop" in self.log() or self.process.poll() is not None, "the listeners")
        return self

    def log(self):
        return self.log_path.read_text(errors="surrogateescape")

    def url(self, path=""):
        return f"http://127.0.0.1:{self.port}/{path}"

    def connect(self):
        sock = socket.create_connection(("127.0.0.1", self.port), DEADLINE)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return sock

    def ask(self, data):
        """The only reply to these bytes, behind which the connection ends."""
        with self.connect() as sock:
            sock.sendall(data)
            reply = read_reply(sock)
            assert sock.recv(1) == b""
            return reply

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def listener(self):
        """The listening socket itself, as a descriptor of ours."""
        return listening_socket(self.process.pid, self.log())

    @contextmanager
    def halted(self):
        """What is sent meanwhile is there at once when the service goes on."""
        self.process.send_signal(signal.SIGSTOP)
        wait_until(lambda: self.proc("stat").rpartition(")")[2].split()[0] == "T", "the service to halt")
        yield
        self.process.send_signal(signal.SIGCONT)

    def memory(self):
        return int(re.search(r"RssAnon:\s+(\d+)", self.proc("status"))[1])

    def cpu_ticks(self):
        fields = self.proc("stat").rpartition(")")[2].split()
        return int(fields[11]) + int(fields[12])

    def proc(self, name):
        with open(f"/proc/{self.process.pid}/{name}") as f:
            return f.read()

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.process.wait(DEADLINE)


@pytest.fixture
def front(tmp_path):
    service = Front(tmp_path)
    yield service
    if service.process and service.process.poll() is None:
        service.process.kill()
        service.process.wait()


@pytest.fixture(params=builds("example_front"))
def any_front(front, request):
    """A service that runs, as built and under AddressSanitizer; its end must be in order."""
    front.start(build=request.param)
    yield front
    assert front.stop() == 0, front.log()[-4000:]


def take(sock, size):
    data = bytearray()
    while len(data) < size:
        piece = sock.recv(min(size - len(data), 1 << 20))
        assert piece, f"closed after {len(data)} of {size} bytes"
        data += piece
    return bytes(data)


def read_head(sock):
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        piece = sock.recv(1)
        assert piece, f"closed behind {head!r}"
        head += piece
    return head.decode("latin-1")


def read_reply(sock, has_body=True):
    head = read_head(sock)
    lines = head.split("\r\n")
    match = re.fullmatch(r"HTTP/1\.1 (\d{3}) [A-Z][A-Za-z -]+", lines[0])
    assert match, head
    headers = dict(line.split(": ", 1) for line in lines[1:-2])
    assert len(headers) == len(lines) - 3, f"a header comes twice: {head}"
    assert headers["Server"] == "kvt" and headers["Date"].endswith(" GMT")
    size = int(headers.get("Content-Length", 0))
    return Reply(int(match[1]), headers, take(sock, size) if has_body else b"", head)


def get(path, *headers, version="1.1", method="GET"):
    lines = [f"{method} {path} HTTP/{version}", "Host: front", *headers]
    return "\r\n".join(lines).encode("latin-1") + b"\r\n\r\n"


def last(path, **kwargs):
    return get(path, "Connection: close", **kwargs)


# ---- clients --------------------------------------------------------------------------------------------------

def curl(*args):
    need("curl")
    done = subprocess.run(["curl", "-sS", "--path-as-is", "-m", str(DEADLINE), *args], capture_output=True)
    return done.returncode, done.stdout


@pytest.mark.parametrize("path, kind", [
    ("ch/1.ts", "video/MP2T"), ("hls-fra/ch/1.ts", "video/MP2T"), ("ch/live.m3u8", "application/x-mpegURL"),
    ("hls-m3u/ch/live.m3u8", "application/x-mpegURL"), ("hls-m3u/ch/live.m3u8?utime=7&duration=now",
                                                         "application/x-mpegURL"),
    ("a.txt", "text/plain"), ("a%2etxt?x=y", "text/plain"),
])
def test_curl_gets_files_with_their_types(front, path, kind):
    front.start()
    name = re.sub(r"^hls-\w+/|\?.*", "", path).replace("%2e", ".")
    status, body = curl("-w", "\n%{http_code} %{content_type}", front.url(path))
    assert status == 0
    data, _, tail = body.rpartition(b"\n")
    assert tail.decode() == f"200 {kind}"
    assert data == (front.root / name).read_bytes()
    assert front.stop() == 0
    assert "(ERR)" not in front.log()


def test_curl_keeps_its_connection_and_asks_for_heads(front):
    front.start()
    status, out = curl("-w", "%{num_connects} ", "-o", "/dev/null", front.url("ch/1.ts"), "-o", "/dev/null",
                       front.url("a.txt"), "-o", "/dev/null", front.url("ping"))
    assert (status, out) == (0, b"1 0 0 ")
    status, out = curl("-I", front.url("ch/1.ts"))
    assert status == 0
    assert f"Content-Length: {len(SEGMENT)}\r\n".encode() in out


def test_curl_is_served_over_ipv6_and_a_local_socket(front):
    path = front.folder / "front.sock"
    front.start(user=f'( {{ default_af = "inet"; port = PORT; }}, {{ ifc = "lo"; default_af = "inet6"; port = PORT; }},'
                     f' {{ domain_path = "{path}"; }} )')
    assert curl(front.url("a.txt")) == (0, b"hello\n")
    assert curl("--unix-socket", path, "http://x/a.txt") == (0, b"hello\n")
    if os.path.exists("/proc/net/if_inet6"):
        assert curl(f"http://[::1]:{front.port}/a.txt") == (0, b"hello\n")
    assert front.stop() == 0


@pytest.mark.parametrize("path, name", [("ch/1.ts", "mpegts"), ("ch/live.m3u8", "hls"),
                                        ("hls-m3u/ch/live.m3u8", "hls")])
def test_ffprobe_finds_the_stream(front, path, name):
    need("ffprobe")
    front.start()
    done = subprocess.run(["ffprobe", "-v", "error", "-of", "csv=p=0", "-show_entries", "format=format_name",
                           "-show_entries", "stream=codec_type", front.url(path)], capture_output=True, text=True,
                          timeout=DEADLINE)
    assert done.returncode == 0, done.stderr
    assert "video" in done.stdout and name in done.stdout


def test_kvt_analyzes_a_stored_segment(front, kvt):
    front.start()
    assert kvt.run("-T", "-i", front.url("hls-fra/ch/1.ts"), "-S", "chan1") == 0
    assert kvt.alerts("CC-BRK") or kvt.alerts("PCR-GAP") or kvt.alert_lines()
    assert f"status 200, segment [ch/1.ts] of {len(SEGMENT)} bytes" in front.log()


def test_kvt_is_told_that_there_is_no_stream(front, kvt):
    front.start()
    assert kvt.run("-T", "-i", front.url("nope.ts"), "-S", "chan1") != 0


# ---- replies --------------------------------------------------------------------------------------------------

def test_ping_and_favicon_are_answered_without_a_file(any_front):
    with any_front.connect() as sock:
        sock.sendall(get("/ping"))
        reply = read_reply(sock)
        assert (reply.status, reply.body) == (200, b"")
        sock.sendall(get("/favicon.ico"))
        reply = read_reply(sock)
        assert reply.status == 204 and "Content-Length" not in reply.headers
        sock.sendall(get("/PING/", version="1.0"))
        assert read_reply(sock).status == 200
        assert sock.recv(1) == b""


def test_a_head_says_what_a_get_would_give_and_nothing_more(any_front):
    with any_front.connect() as sock:
        for path in ("/ch/1.ts", "/ch/live.m3u8", "/a.txt"):
            sock.sendall(get(path, method="HEAD"))
            of_head = read_reply(sock, has_body=False)
            sock.sendall(get(path))
            of_get = read_reply(sock)
            drop_date = {"Date": None}
            assert {**of_head.headers, **drop_date} == {**of_get.headers, **drop_date}
            assert of_get.body == (any_front.root / path[1:]).read_bytes()
        sock.sendall(last("/nope", method="HEAD"))
        assert read_reply(sock).status == 404
        assert sock.recv(1) == b""


def test_an_empty_file_is_a_reply_of_no_bytes(any_front):
    any_front.put("empty.ts", b"")
    with any_front.connect() as sock:
        for _ in range(2):
            sock.sendall(get("/empty.ts"))
            reply = read_reply(sock)
            assert (reply.status, reply.headers["Content-Length"]) == (200, "0")


@pytest.mark.parametrize("version, headers, keeps, says", [
    ("1.1", [], True, None), ("1.1", ["Connection: close"], False, "close"),
    ("1.1", ["Connection: TE, close"], False, "close"), ("1.1", ["Connection: keep-alive"], True, None),
    ("1.0", [], False, "close"), ("1.0", ["Connection: keep-alive"], True, "keep-alive"),
    ("1.0", ["X-Connection: keep-alive"], False, "close"),
])
def test_connections_are_kept_as_version_and_peer_say(front, version, headers, keeps, says):
    front.start()
    with front.connect() as sock:
        for _ in range(3 if keeps else 1):
            sock.sendall(get("/a.txt", *headers, version=version))
            reply = read_reply(sock)
            assert (reply.status, reply.headers.get("Connection")) == (200, says)
        if not keeps:
            assert sock.recv(1) == b""


def test_requests_sent_ahead_are_answered_in_order(any_front):
    names = [f"n{i}" for i in range(40)]
    for name in names:
        any_front.put(name, name.encode() * 50)
    order = names + ["ch/1.ts"] + names[::-1]
    with any_front.connect() as sock:
        sock.sendall(b"".join(get("/" + name) for name in order) + last("/a.txt") + get("/n0"))
        for name in order:
            assert read_reply(sock).body == (any_front.root / name).read_bytes()
        assert read_reply(sock).body == b"hello\n"
        assert sock.recv(1) == b""  # nothing behind the last one


def test_requests_sent_ahead_wait_for_a_peer_that_reads_late(any_front):
    any_front.big()
    with any_front.connect() as sock:
        sock.sendall(get("/big.ts") * 2 + last("/a.txt"))
        for _ in range(2):
            assert len(read_reply(sock).body) == BIG
        assert read_reply(sock).body == b"hello\n"


def test_thousands_of_requests_in_one_burst_are_all_answered(any_front):
    count = 3000
    with any_front.connect() as sock:
        sender = threading.Thread(target=lambda: (sock.sendall(get("/a.txt") * count), sock.shutdown(socket.SHUT_WR)))
        sender.start()
        for _ in range(count):
            assert read_reply(sock).body == b"hello\n"
        assert sock.recv(1) == b""
        sender.join()


def test_a_burst_of_requests_does_not_keep_the_others_waiting(any_front):
    with any_front.connect() as greedy, any_front.connect() as modest:
        for sock in (greedy, modest):
            sock.sendall(get("/ping"))
            assert read_reply(sock).status == 200
        with any_front.halted():
            greedy.sendall(get("/a.txt") * 150)
            modest.sendall(last("/ch/1.ts"))
        assert read_reply(modest).body == SEGMENT
        for _ in range(150):
            assert read_reply(greedy).body == b"hello\n"
    order = re.findall(r"status 200, file \[(.*?)\]", any_front.log())
    assert len(order) == 151
    assert order.index("ch/1.ts") <= TURN_REPLIES


def test_blank_lines_ahead_of_a_request_are_ignored(any_front):
    with any_front.connect() as sock:
        sock.sendall(b"\r\n" + get("/a.txt") + b"\r\n\r\n\n" + last("/a.txt"))
        assert [read_reply(sock).body for _ in range(2)] == [b"hello\n"] * 2
    assert any_front.ask(b"\r\n" * HEAD_MAX + last("/a.txt")).body == b"hello\n"


def test_a_peer_that_has_said_all_gets_its_reply(any_front):
    any_front.big()
    with any_front.connect() as sock:
        sock.sendall(get("/big.ts"))
        sock.shutdown(socket.SHUT_WR)
        assert len(read_reply(sock).body) == BIG
        assert sock.recv(1) == b""


# ---- bad requests ---------------------------------------------------------------------------------------------

CUT = b"GET /ch/live.m3u8?a=b HTTP/1.1\r\nHost: front\r\nConnection: close\r\nUser-Agent: x\r\n\r\n"


def test_a_request_cut_short_at_any_byte_is_no_request(any_front):
    before = any_front.descriptors()
    for size in range(len(CUT)):
        with any_front.connect() as sock:
            sock.sendall(CUT[:size])
            sock.shutdown(socket.SHUT_WR)
            assert sock.recv(1) == b"", size
    wait_until(lambda: any_front.descriptors() == before, "the connections to go")


def test_a_request_may_come_byte_by_byte(any_front):
    with any_front.connect() as sock:
        for i in range(len(CUT)):
            sock.sendall(CUT[i:i + 1])
            assert "status" not in any_front.log() or i >= len(CUT) - 1
        assert read_reply(sock).body == PLAYLIST
    for first in range(1, len(CUT)):
        with any_front.connect() as sock:
            sock.sendall(CUT[:first])
            sock.sendall(CUT[first:])
            assert read_reply(sock).body == PLAYLIST


@pytest.mark.parametrize("request_bytes, status", [
    (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", 400), (b"GET /a.txt\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\n\r\n", 400), (get("/a.txt", "Host: other"), 400), (get("/a.txt", "no colon"), 400),
    (get("/a.txt", "X: a\nY: b"), 400), (get("/a.txt", "X: a\n\nGET /ping HTTP/1.0"), 400),
    (b"\r" + get("/a.txt"), 400), (b"GET /a.txt HTTP/1.1\r\nHost: a b\r\n\r\n", 400), (last("http:///a.txt"), 400),
    (get("/a.txt", " folded"), 400), (last("a.txt"), 400), (last("*"), 400), (get("/a b"), 400),
    (get("/", version="2.0"), 505), (get("/", version="3"), 400), (last("/", method="G(T"), 400),
    (last("/", method="POST"), 405), (last("/", method="DELETE"), 405), (last("/", method="OPTIONS"), 405),
    (last("/", method="BREW"), 501), (last("/", method="PROPFIND"), 501), (last("/", method="get"), 501),
    (get("/a.txt", "Content-Length: 3") + b"abc", 413), (get("/a.txt", "Content-Length: x"), 400),
    (get("/a.txt", "Transfer-Encoding: chunked") + b"0\r\n\r\n", 501),
    (last("/" + "a" * TARGET_MAX), 414), (last("/" + "a" * 1500), 414), (b"GET /" + b"a" * HEAD_MAX, 414),
    (get("/", "X: " + "a" * HEAD_MAX), 431), (get("/", *["X: y"] * 2000), 431),
    (last("/nope"), 404), (last("/a.txt/"), 404), (last("/ch"), 403), (last("/"), 403), (last("/$alias/x"), 404),
    (last("/udp/239.1.1.1:5000/"), 404), (last("/src/udp/239.1.1.1:5000/dst/f.ts"), 404),
    (last("/hls-m3u/ch/live.m3u8?utime=x"), 400), (last("/hls-m3u/ch/index-x.m3u8"), 400),
    (last("/x/../hls-m3u/ch/live.m3u8"), 403), (last("/%0a/hls-m3u/ch/live.m3u8"), 400),
])
def test_a_bad_request_gets_its_status_and_the_end_of_the_connection(any_front, request_bytes, status):
    reply = any_front.ask(request_bytes)
    assert (reply.status, reply.body, reply.headers["Connection"]) == (status, b"", "close")
    assert (reply.headers.get("Allow") == "GET, HEAD") == (status == 405)
    assert any_front.ask(last("/a.txt")).body == b"hello\n"


def test_a_bad_target_leaves_the_connection_to_the_next_request(any_front):
    with any_front.connect() as sock:
        for path in ("/%zz", "*", "/hls-m3u/ch/live.m3u8?x"):
            sock.sendall(get(path))
            reply = read_reply(sock)
            assert (reply.status, reply.headers.get("Connection")) == (400, None)
        sock.sendall(get("/a.txt"))
        assert read_reply(sock).body == b"hello\n"


def test_the_longest_head_is_taken_and_one_byte_more_is_not(any_front):
    base = len(last("/a.txt")) + len("X: \r\n")
    for extra, status in ((0, 200), (1, 431)):
        request = get("/a.txt", "Connection: close", "X: " + "a" * (HEAD_MAX - base + extra))
        assert len(request) == HEAD_MAX + extra
        assert any_front.ask(request).status == status


def test_a_thousand_query_parameters_are_nobodys_business_but_a_playlists(any_front):
    short = "&".join(str(i) + "=" for i in range(380))
    assert any_front.ask(last("/a.txt?" + short)).body == b"hello\n"
    assert any_front.ask(last("/hls-m3u/ch/live.m3u8?" + short)).status == 400
    assert any_front.ask(last("/a.txt?" + "&".join(f"p{i}=v{i}" for i in range(1000)))).status == 414


TRAVERSALS = [
    "/../secret", "/ch/../../secret", "/..", "/../", "//../secret", "/./../secret", "/%2e%2e/secret", "/.%2e/secret",
    "/%2E%2E/secret", "/..%2fsecret", "/%2e%2e%2fsecret", "/ch%2f..%2f..%2fsecret", "/ch/%2e%2e/%2e%2e/secret",
    "/%252e%252e/secret", "/%252e%252e%252fsecret", "/..%252fsecret", "/%25%32%65%25%32%65/secret", "/..%c0%afsecret",
    "/..\\secret", "/..%5csecret", "/%2e%2e%5csecret", "/../secret%00.ts", "/a.txt%00", "/%00", "/ch/1.ts%00/../../secret",
    "/hls-fra/../secret", "/hls-fra/%2e%2e/secret", "/hls-fra/..%2fsecret", "/hls-fra//etc/passwd", "/hls-m3u/../secret",
    "/hls-m3u/%2e%2e/secret", "/hls-m3u//etc/passwd", "//etc/passwd", "/%2fetc%2fpasswd", "/etc/passwd",
    "http://front/../secret", "http://front/%2e%2e/secret", "http://../secret", "file:///etc/passwd", "http:///etc/passwd",
    "/above", "/absolute", "/up/secret", "/loop", "/magic/secret", "/proc", "/fifo", "/sock", "/ch/", "/...", "/.. /secret",
    "/../hls-m3u/ch/live.m3u8", "/..%2fhls-m3u/ch/live.m3u8", "/;/../secret", "/..;/secret", "/..%01/secret", "/src/file:///etc/passwd/dst/x", "/%e0%80%ae%e0%80%ae/secret",
]


@pytest.fixture
def traps(any_front):
    """Names beneath the root that lead elsewhere, or to what is no file."""
    for name, target in (("above", "../secret"), ("absolute", any_front.folder / "secret"), ("up", ".."),
                         ("loop", "loop"), ("magic", "/proc/self/cwd"), ("proc", "/proc/self/environ")):
        os.symlink(target, any_front.root / name)
    os.mkfifo(any_front.root / "fifo")
    sock = socket.socket(socket.AF_UNIX)
    sock.bind(str(any_front.root / "sock"))
    sock.close()
    return any_front


def test_nothing_outside_the_root_is_served(traps):
    for path in TRAVERSALS:
        reply = traps.ask(last(path))
        assert reply.status in (400, 403, 404), path
        assert reply.body == b"", path
    log = traps.log()
    assert "status 200" not in log


def test_links_inside_the_root_are_followed(any_front):
    os.symlink("../a.txt", any_front.root / "ch/link")
    assert any_front.ask(last("/ch/link")).body == b"hello\n"


def test_no_request_writes_headers_or_log_lines(any_front):
    for text in ("%0d%0aX-Injected:%20yes", "%0aX-Injected:%20yes", "%0d%0a%0d%0aX-Injected", "\nX-Injected: yes",
                 "\r\nX-Injected: yes", "%1b[31mX-Injected", "\x1b[31mX-Injected", "\x85X-Injected", "%c2%85X-Injected",
                 "%e2%80%a8X-Injected"):
        for path in ("/", "/hls-m3u/", "/hls-fra/", "/ch/live.m3u8?", "/hls-m3u/ch/live.m3u8?utime=7&x=",
                     "/src/"):
            with any_front.connect() as sock:
                sock.sendall(last(path + text))
                reply = read_reply(sock)
                assert "X-Injected" not in reply.head
    for method in ("A\nFAKE", "G\x1b[3m", "A\rB", "\x00\x00\x00"):
        assert any_front.ask(last("/", method=method)).status == 400
    log = any_front.log()
    for line in log.splitlines():
        assert re.match(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} UTC \([A-Z]{3}\)  ", line), line
    assert not set(log) & set("\x1b\r\x00")


def test_names_in_any_language_and_with_odd_characters_are_found(any_front):
    for name, path in (("grün.ts", "/gr%C3%BCn.ts"), ("a+b.ts", "/a+b.ts"), ("a b.ts", "/a%20b.ts"),
                       ("100%.ts", "/100%25.ts"), ("a?b.ts", "/a%3Fb.ts"), ("%2e.ts", "/%252e.ts"), ("..x", "/..x")):
        data = any_front.put(name, name.encode())
        assert any_front.ask(last(path)).body == data, path


# ---- files that change ----------------------------------------------------------------------------------------

def start_big(front):
    """A reply of which the head has been read, and the body is stuck."""
    front.big()
    sock = front.connect()
    sock.sendall(get("/big.ts"))
    assert f"Content-Length: {BIG}\r\n" in read_head(sock)
    return sock


def test_a_file_that_shrinks_ends_the_connection(any_front):
    with start_big(any_front) as sock:
        os.truncate(any_front.root / "big.ts", 1000)
        count = 0
        while piece := sock.recv(1 << 20):
            count += len(piece)
        assert count < BIG
    assert "the file has become shorter" in any_front.log()
    assert any_front.ask(last("/a.txt")).body == b"hello\n"


def test_a_file_that_grows_is_sent_as_long_as_it_was(any_front):
    with start_big(any_front) as sock:
        with (any_front.root / "big.ts").open("ab") as out:
            out.write(b"x" * 100000)
        sock.sendall(last("/a.txt"))
        assert take(sock, BIG) == bytes(BIG)
        assert read_reply(sock).body == b"hello\n"


def test_a_file_that_goes_away_is_sent_to_its_end(any_front):
    with start_big(any_front) as sock:
        (any_front.root / "big.ts").unlink()
        assert take(sock, BIG) == bytes(BIG)
        sock.sendall(last("/big.ts"))
        assert read_reply(sock).status == 404


# ---- peers of all kinds ---------------------------------------------------------------------------------------

def test_a_client_that_goes_away_in_the_middle_of_a_body_is_forgotten(any_front):
    before = any_front.descriptors()
    for is_reset in (False, True):
        sock = start_big(any_front)
        if is_reset:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()
        wait_until(lambda: any_front.descriptors() == before, "the connection to go")
    assert any_front.ask(last("/a.txt")).body == b"hello\n"


def test_clients_that_do_not_read_hold_nobody_up_and_cost_nothing(front):
    front.start()
    stuck = [start_big(front) for _ in range(10)]
    for _ in range(20):
        assert front.ask(last("/ch/1.ts")).body == SEGMENT

    def rests():
        ticks = front.cpu_ticks()
        time.sleep(0.3)
        return front.cpu_ticks() - ticks <= 3  # hundredths of a second; what spins never comes to that

    wait_until(rests, "the service to wait for its peers")
    for sock in stuck:
        assert take(sock, BIG) == bytes(BIG)
        sock.close()


def test_a_thousand_requests_leave_nothing_behind(any_front):
    with any_front.connect() as sock:
        for _ in range(10):
            sock.sendall(get("/a.txt"))
            read_reply(sock)
        descriptors, memory = any_front.descriptors(), any_front.memory()
        for _ in range(500):
            sock.sendall(get("/a.txt") + get("/ch/live.m3u8", method="HEAD"))
            assert read_reply(sock).body == b"hello\n"
            assert read_reply(sock, has_body=False).status == 200
        assert any_front.descriptors() == descriptors
    for _ in range(500):
        any_front.ask(last("/a.txt"))
        any_front.ask(last("/nope"))
    wait_until(lambda: any_front.descriptors() == descriptors - 1, "the connections to go")
    if any_front.build == BUILD:  # AddressSanitizer keeps what is freed for a while
        assert any_front.memory() - memory < 256


# ---- time-outs ------------------------------------------------------------------------------------------------

def test_a_head_that_does_not_end_in_time_gets_408(front):
    front.start("user_request_timeout = 600;")
    with front.connect() as sock:
        began = time.monotonic()
        for byte in CUT[:-1]:  # a byte now and then doesn't keep it alive
            sock.sendall(bytes([byte]))
            time.sleep(0.02)
            if "status" in front.log():
                break
        reply = read_reply(sock)
        assert (reply.status, reply.headers["Connection"]) == (408, "close")
        assert 0.5 < time.monotonic() - began < 4
        assert "status 408" in front.log()


def test_a_connection_that_says_nothing_is_closed_without_a_word(front):
    front.start("user_request_timeout = 300;")
    with front.connect() as silent, front.connect() as used:
        used.sendall(get("/a.txt") + b"\r\n")  # a blank line is no beginning of a request
        assert read_reply(used).status == 200
        assert silent.recv(1) == b""
        assert used.recv(1) == b""


def test_blank_lines_do_not_keep_a_connection(front):
    front.start("user_request_timeout = 300;")
    with front.connect() as sock:
        sock.settimeout(0.02)
        end = time.monotonic() + 4
        while time.monotonic() < end:
            try:
                sock.sendall(b"\r\n")
                assert sock.recv(1) == b""
                break
            except TimeoutError:
                pass
            except ConnectionError:
                break
        else:
            pytest.fail("it is still open")
    assert "status" not in front.log()


def test_a_reply_that_does_not_move_is_given_up(front):
    front.start("user_request_timeout = 300;")
    before = front.descriptors()
    with start_big(front) as sock:
        wait_until(lambda: front.descriptors() == before, "the connection to go")
        with pytest.raises((AssertionError, ConnectionResetError)):
            take(sock, BIG)


def test_a_reply_that_moves_slowly_is_not_given_up(front):
    front.start("user_request_timeout = 400;")
    with start_big(front) as sock:
        end = time.monotonic() + 1.5
        count = 0
        while time.monotonic() < end:
            count += len(take(sock, 1 << 20))
            time.sleep(0.05)
        assert take(sock, BIG - count) == bytes(BIG - count)


def test_a_refused_peer_that_goes_on_sending_still_gets_its_reply(any_front):
    with any_front.connect() as sock:
        sock.sendall(get("/", "Content-Length: 1000000", method="POST"))
        sock.sendall(b"x" * 1000000)
        assert read_reply(sock).status == 405


# ---- many of them ---------------------------------------------------------------------------------------------

def test_a_full_house_says_so(front):
    front.start("max_requests = 5;")
    held = [front.connect() for _ in range(5)]
    for sock in held:
        sock.sendall(get("/a.txt"))
        assert read_reply(sock).status == 200
    for _ in range(3):
        with front.connect() as sock:
            reply = read_reply(sock)  # without a request
            assert (reply.status, reply.headers["Connection"]) == (503, "close")
            assert sock.recv(1) == b""
    held[0].sendall(get("/a.txt"))
    assert read_reply(held[0]).body == b"hello\n"
    held.pop().close()

    def served():
        with front.connect() as sock:
            sock.sendall(last("/a.txt"))
            return read_reply(sock).status == 200

    wait_until(served, "a place")
    for sock in held:
        sock.close()


def test_far_too_many_connections_are_refused_and_then_served_again(front):
    front.start("max_requests = 5;")
    socks = []

    def refused():
        try:
            socks.append(front.connect())
        except (ConnectionRefusedError, ConnectionResetError):
            return True
        return len(socks) > 200

    wait_until(refused, "a refusal")
    assert 25 <= len(socks) < 200
    for sock in socks:
        sock.close()

    def served():
        try:
            return front.ask(last("/a.txt")).status == 200
        except (ConnectionError, AssertionError):
            return False

    wait_until(served, "the listener to be back")
    assert front.stop() == 0


def test_three_hundred_clients_at_once_are_all_served(front):
    front.start()
    before = front.descriptors()
    socks = [front.connect() for _ in range(300)]
    for i, sock in enumerate(socks):
        sock.sendall(last("/ch/1.ts" if i % 2 else "/ch/live.m3u8"))
    for i, sock in enumerate(socks):
        assert read_reply(sock).body == (SEGMENT if i % 2 else PLAYLIST)
        sock.close()
    wait_until(lambda: front.descriptors() == before, "the connections to go")


def test_as_many_connections_as_there_are_descriptors_for(front):
    front.start(limit=64)  # of which the service leaves itself room: six connections, and files for all of them
    front.big()
    socks = []
    for _ in range(6):
        socks.append(front.connect())
        socks[-1].sendall(get("/big.ts"))
        assert "200 OK" in read_head(socks[-1])
    with front.connect() as sock:
        assert read_reply(sock).status == 503
    for sock in socks:
        assert take(sock, BIG) == bytes(BIG)


def test_a_crowd_that_comes_at_once_takes_nobodys_descriptors(front):
    front.start(limit=64)  # of which those that are refused must leave the six a file each
    front.big()
    with front.halted():
        socks = [front.connect() for _ in range(60)]
        for sock in socks[:6]:
            sock.sendall(get("/big.ts"))
    for sock in socks[:6]:
        assert "200 OK" in read_head(sock)
    for sock in socks[6:6 + REFUSED_MAX]:
        assert read_reply(sock).status == 503
    assert "Too many open files" not in front.log()
    for sock in socks:
        sock.close()


def test_more_connections_than_there_are_descriptors_for_are_not_promised(front):
    front.start("max_requests = 99999999999L;", limit=64)
    assert "front: max_requests=99999999999, but 64 descriptors are enough for 6" in front.log()
    with front.connect() as sock:
        sock.sendall(last("/a.txt"))
        assert read_reply(sock).body == b"hello\n"


def test_files_that_cannot_be_opened_for_want_of_descriptors_are_unavailable(front):
    front.start()
    with front.connect() as sock:
        sock.sendall(get("/ping"))
        assert read_reply(sock).status == 200
        resource.prlimit(front.process.pid, resource.RLIMIT_NOFILE, (3, 1024))
        sock.sendall(get("/a.txt"))
        assert read_reply(sock).status == 503
    assert "front_open: open ERROR: Too many open files" in front.log()


def test_a_service_without_descriptors_goes_on_when_it_has_some(front):
    front.start()
    resource.prlimit(front.process.pid, resource.RLIMIT_NOFILE, (3, 1024))
    with front.connect():  # waits in the listener's queue
        wait_until(lambda: "ERROR(24)" in front.log(), "the shortage")
    resource.prlimit(front.process.pid, resource.RLIMIT_NOFILE, (1024, 1024))

    def served():
        try:
            return front.ask(last("/a.txt")).status == 200
        except (ConnectionError, AssertionError):
            return False

    wait_until(served, "a connection")
    assert front.stop() == 0


def test_a_listener_that_accepts_nothing_for_whatever_reason_pauses(front):
    strace = shutil.which("strace")
    if not strace:
        pytest.skip("no strace to let accept fail")
    front.start(under=[strace, "-Dqo", "/dev/null", "-e", "trace=accept", "-e", "inject=accept:error=ENOBUFS"])
    with front.connect():
        wait_until(lambda: front.log().count("STARTED listener") == 2, "the listener to be back")
    assert front.log().count("ERROR(105)") == 1
    assert front.stop() == 0


# ---- start and end --------------------------------------------------------------------------------------------

@pytest.mark.parametrize("where", ["port = PORT;", 'domain_path = "FOLDER/front.sock";'])
def test_a_listening_socket_that_fails_ends_the_process(front, where):
    front.start(user=f'{{ alias = "http"; {where} }}'.replace("FOLDER", str(front.folder)))
    with front.listener() as listener:
        listener.shutdown(socket.SHUT_RDWR)
    assert front.process.wait(DEADLINE) == -signal.SIGABRT
    assert "rui_crash_on_error: HUP listener[http] ERROR(0): Success" in front.log()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
@pytest.mark.parametrize("build", builds("example_front"))
def test_it_ends_in_order_with_connections_open(front, build, number):
    front.start(build=build)
    with start_big(front), front.connect() as reading, front.connect() as idle:
        reading.sendall(b"GET / HT")
        idle.sendall(get("/a.txt"))
        assert read_reply(idle).status == 200
        assert front.stop(number) == 0
        assert idle.recv(1) == b""


def test_a_port_and_a_directory_are_enough(front):
    front.run("-p", str(front.port), front.root)
    assert front.ask(last("/a.txt")).body == b"hello\n"
    assert front.stop() == 0


@pytest.mark.parametrize("extra, said", [
    ("max_to_accept = 0;", "Invalid max_accept valie (0)"), ("max_requests = 0;", "max_requests=0"),
    ("max_requests = -1;", "max_requests=-1"), ("user_request_timeout = 0;", "Invalid user_request_tmout valie (0)"),
    ('root = "/nonexistent";', "/nonexistent: No such file"), ('root = "/etc/passwd";', "Not a directory"),
    ("root = ", "syntax error"), ("root = \"\";", "no root"), ("root = 5;", "no root"),
    ('max_requests = "x";', "max_requests is no number"), ("max_requests = 4.5;", "max_requests is no number"),
    ("max_requests = -99999999999L;", "max_requests=-99999999999"), ("max_requests = true;", "max_requests is no number"),
    ("user: { default_af = \"all\"; port = 1; };", "failed to start usr listener"), ("admin: { port = 1; };", "needs user listeners"),
    ("custom: { port = 1; };", "needs user listeners"), ("user: ();", "needs user listeners"),
    ("user: ( { port = 1; }, { protocol = \"udp\"; port = 2; } );", "none of UDP"),
])
def test_a_bad_configuration_ends_it_with_a_word(front, extra, said):
    rest = "" if "max_to_accept" in extra else "max_to_accept = 1;"
    root = "" if "root" in extra else f'root = "{front.root}";'
    config = front.folder / "bad.conf"
    user = "" if "user:" in extra else f"user: {{ port = {front.port}; }};"
    config.write_text(f"front: {{ {user} {rest} {root} {extra} }};")
    done = subprocess.run([BUILD / "example_front", "-C", config], capture_output=True, text=True, timeout=DEADLINE)
    assert done.returncode == 1
    assert said in done.stderr


def test_the_command_line_needs_one_of_both(front):
    program = BUILD / "example_front"
    for args in ([], ["-C"], ["-x", "/tmp"], ["-C", "f", "dir"], ["a", "b"], ["-v"], ["-C", "f", "-p", "1"], ["-p"]):
        done = subprocess.run([program, *args], timeout=DEADLINE, capture_output=True, text=True)
        assert done.returncode == 2, args
        assert "usage: front [-v] [-p PORT] DIR | front [-v] -C FILE.conf\n" in done.stderr, args
    for args in (["-C", "/nonexistent.conf"], ["-p", "0", "/tmp"], ["-p", '";', "/tmp"], ["/nonexistent"],
                 ["-p", "65536", "/tmp"], ["-p", "123456", "/tmp"], ["-p", "", "/tmp"], ["-p", "8" * 300, "/tmp"]):
        done = subprocess.run([program, *args], timeout=DEADLINE, capture_output=True, text=True)
        assert done.returncode == 1 and done.stderr, args
