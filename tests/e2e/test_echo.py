"""The example service `echo` as a process: connections over TCP and a local socket, load, time-outs, its end."""
import os
import re
import resource
import select
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD, DEADLINE, free_port, wait_until
from service import builds, listening_socket

PIECE = b"0123456789abcdef" * 1024
QUEUE_MAX = 1000  # requests of a listener
RESET = b"\1\0\0\0\0\0\0\0"  # SO_LINGER: on, for no time


class Echo:
    def __init__(self, folder):
        self.folder = folder
        self.port = free_port(socket.SOCK_STREAM)
        self.path = str(folder / "echo.sock")
        self.log_path = folder / "echo.log"
        self.process = None

    def start(self, extra="", build=BUILD, descriptors=None):
        config = self.folder / "echo.conf"
        config.write_text(f"""echo: {{
            user: ( {{ alias = "tcp"; default_af = "inet"; port = {self.port}; }},
                    {{ alias = "local"; domain_path = "{self.path}"; }} );
            max_to_accept = 128; {extra} }};""")

        def limit():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            if descriptors:
                resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))

        self.process = subprocess.Popen([build / "example_echo", "-v", config], stderr=self.log_path.open("wb"),
                                        preexec_fn=limit)
        wait_until(lambda: "Entering event loop" in self.log() or self.process.poll() is not None, "the listeners")
        return self

    def log(self):
        return self.log_path.read_text(errors="replace")

    def tcp(self):
        return self.connect(socket.AF_INET, ("127.0.0.1", self.port))

    def local(self):
        return self.connect(socket.AF_UNIX, self.path)

    @staticmethod
    def connect(family, address):
        sock = socket.socket(family)
        sock.settimeout(DEADLINE)
        sock.connect(address)
        return sock

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def status(self, key):
        return re.search(rf"^{key}:\s+(\S+)", Path(f"/proc/{self.process.pid}/status").read_text(), re.M)[1]

    def idle_turns(self, count):
        """Lets so many turns of the loop pass. A turn without events takes as long as the service's tick."""
        end = int(self.status("voluntary_ctxt_switches")) + count
        wait_until(lambda: int(self.status("voluntary_ctxt_switches")) >= end, "the service's turns")

    def queue(self, connect, count):
        """So many connections, all queued."""
        socks, before = [], self.log().count("rui_add_request: OK")
        while len(socks) < count:
            socks += [connect() for _ in range(min(100, count - len(socks)))]  # what a backlog holds
            wait_until(lambda: self.log().count("rui_add_request: OK") == before + len(socks), "the requests")
        return socks

    def listener(self, alias):
        """The listening socket itself, as a descriptor of ours."""
        return listening_socket(self.process.pid, self.log(), alias)

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.process.wait(DEADLINE)


@pytest.fixture
def echo(tmp_path):
    service = Echo(tmp_path)
    yield service
    if service.process and service.process.poll() is None:
        service.process.kill()
        service.process.wait()


@pytest.fixture
def many_descriptors():
    """Room for a full queue of connections on this side."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    want = 2 * QUEUE_MAX
    if soft < want:
        if hard != resource.RLIM_INFINITY and hard < want:
            pytest.skip(f"only {hard} descriptors")
        resource.setrlimit(resource.RLIMIT_NOFILE, (want, hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def take(sock, size):
    data = b""
    while len(data) < size:
        piece = sock.recv(size - len(data))
        assert piece, f"closed after {len(data)} of {size} bytes"
        data += piece
    return data


@pytest.mark.parametrize("build", builds("example_echo"))
def test_what_is_sent_comes_back(echo, build):
    echo.start(build=build)
    for sock in (echo.tcp(), echo.local()):
        with sock:
            for text in (b"x", b"two words", PIECE):
                sock.sendall(text)
                assert take(sock, len(text)) == text
            sock.shutdown(socket.SHUT_WR)
            assert sock.recv(1) == b""
    assert echo.stop() == 0
    log = echo.log()
    assert re.search(rf"STARTED listener fd\d+ for usr requests on all:{echo.port}; 0 requests pending", log)
    assert re.search(rf"STARTED listener fd\d+ for usr requests on {echo.path}:; 0 requests pending", log)
    assert len(re.findall(r"Accepted usr request \[fd=\d+\] from ", log)) == 2
    assert "(ERR)" not in log


@pytest.mark.parametrize("build", builds("example_echo"))
def test_a_peer_that_does_not_read_holds_nobody_up(echo, build):
    echo.start(build=build)
    with echo.tcp() as slow, echo.tcp() as other:
        slow.setblocking(False)
        sent = 0
        with pytest.raises(BlockingIOError):  # both directions are full: the service waits to write
            while True:
                sent += slow.send(PIECE)
        other.sendall(b"still there?")
        assert take(other, 12) == b"still there?"
        slow.settimeout(DEADLINE)
        want = PIECE * (sent // len(PIECE) + 1)
        assert take(slow, sent) == want[:sent]


@pytest.mark.parametrize("build", builds("example_echo"))
def test_a_peer_that_resets_its_connection_is_gone(echo, build):
    echo.start(build=build)
    before = echo.descriptors()
    for _ in range(20):
        sock = echo.tcp()
        sock.sendall(PIECE)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
        sock.close()
    wait_until(lambda: echo.descriptors() == before and echo.log().count("rm_request: OK") == 20, "the removals")
    assert echo.stop() == 0


@pytest.mark.parametrize("build", builds("example_echo"))
def test_connections_that_die_while_the_service_is_held_up_end_in_one_turn(echo, build):
    echo.start(build=build)
    before = echo.descriptors()
    socks = echo.queue(echo.tcp, 24) + echo.queue(echo.local, 24)
    for sock in socks:
        sock.sendall(b"x")
        assert take(sock, 1) == b"x"
    echo.process.send_signal(signal.SIGSTOP)
    wait_until(lambda: echo.status("State") == "T", "the stop")
    for i, sock in enumerate(socks):
        if i % 2:
            sock.sendall(PIECE)
        if i % 4 < 2:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
        sock.close()
    with echo.tcp() as fresh:  # waits in the same turn
        echo.process.send_signal(signal.SIGCONT)
        fresh.sendall(b"and me?")
        assert take(fresh, 7) == b"and me?"
    wait_until(lambda: echo.log().count("rm_request: OK") == len(socks) + 1, "the removals")
    assert echo.descriptors() == before
    assert echo.stop() == 0
    assert "(ERR)" not in echo.log()


def test_a_silent_connection_times_out(echo):
    echo.start("user_request_timeout = 200;")
    with echo.tcp() as sock:
        assert sock.recv(1) == b""
    assert "tmout_srv: 1 [usr] requests timed out" in echo.log()


def test_a_connection_that_speaks_outlives_one_that_is_silent(echo):
    echo.start("user_request_timeout = 1000;")
    with echo.tcp() as silent, echo.tcp() as busy:
        while not select.select([silent], [], [], 0.05)[0]:
            busy.sendall(b"x")
            assert take(busy, 1) == b"x"
        assert silent.recv(1) == b""
        busy.sendall(b"still")
        assert take(busy, 5) == b"still"
    assert "tmout_srv: 1 [usr] requests timed out" in echo.log()


# ---- load -------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("build", builds("example_echo"))
def test_the_thousand_and_first_connection_is_refused(echo, many_descriptors, build):
    echo.start(f"max_requests = {2 * QUEUE_MAX};", build=build, descriptors=1024)
    socks = echo.queue(echo.tcp, QUEUE_MAX)
    assert "Too many" not in echo.log()
    for _ in range(2):  # one behind the other: the listener goes on
        with echo.tcp() as refused:
            assert refused.recv(1) == b""
    log = echo.log()
    assert log.count("rui_add_request: Too many user requests (1000) queued") == 2
    assert len(re.findall(r"Error rc=16 processing connection \[127\.0\.0\.1:\d+\] fd=\d+", log)) == 2
    with echo.local() as other:  # another listener's queue
        other.sendall(b"x")
        assert take(other, 1) == b"x"
    for i, sock in enumerate(socks):
        sock.sendall(b"%04d" % i)
    for i, sock in enumerate(socks):
        assert take(sock, 4) == b"%04d" % i
    gone = echo.log().count("rm_request: OK")
    socks.pop().close()
    wait_until(lambda: echo.log().count("rm_request: OK") == gone + 1, "the removal")
    socks += echo.queue(echo.tcp, 1)
    for sock in socks:
        sock.close()
    wait_until(lambda: echo.log().count("rm_request: OK") == gone + 1 + QUEUE_MAX, "the removals")
    assert echo.stop() == 0


def test_a_listener_with_a_full_queue_stops_and_resumes_below_750(echo, many_descriptors):
    echo.start(descriptors=1024)
    socks = echo.queue(echo.tcp, QUEUE_MAX)
    wait_until(lambda: "wll be closed (1000 requsts queued)" in echo.log(), "the stop")
    with pytest.raises(ConnectionRefusedError):
        echo.tcp()
    for _ in range(250):
        socks.pop().close()
    wait_until(lambda: echo.log().count("rm_request: OK") == 250, "the removals")
    echo.idle_turns(5)
    with pytest.raises(ConnectionRefusedError):
        echo.tcp()
    socks.pop().close()
    wait_until(lambda: "; 749 requests pending" in echo.log(), "the resumption")
    socks += echo.queue(echo.tcp, 1)
    socks[-1].sendall(b"x")
    assert take(socks[-1], 1) == b"x"
    assert "(ERR)" not in echo.log()
    for sock in socks:
        sock.close()


@pytest.mark.parametrize("kind", ["tcp", "local"])
def test_a_listener_stops_at_its_maximum_and_resumes_below_three_quarters(echo, kind):
    echo.start("max_requests = 4;")
    connect, connect_other = (echo.tcp, echo.local) if kind == "tcp" else (echo.local, echo.tcp)
    with connect_other() as held:  # of another listener: not counted
        socks = [connect() for _ in range(4)]
        wait_until(lambda: "wll be closed (4 requsts queued)" in echo.log(), "the stop")
        with pytest.raises(ConnectionRefusedError):
            connect()
        socks.pop().close()
        wait_until(lambda: echo.log().count("rm_request: OK") == 1, "the removal")
        echo.idle_turns(5)
        with pytest.raises(ConnectionRefusedError):  # three of four: not yet
            connect()
        socks.pop().close()
        wait_until(lambda: "; 2 requests pending" in echo.log(), "the resumption")
        assert "rui_should_listen: usr (2 requsts queued)" in echo.log()
        with connect() as again:
            again.sendall(b"back")
            assert take(again, 4) == b"back"
        for sock in socks + [held]:  # those queued all the time
            sock.sendall(b"here")
            assert take(sock, 4) == b"here"
            sock.close()
    assert echo.stop() == 0


def test_a_stopped_listener_whose_port_is_taken_resumes_when_it_is_free(echo):
    echo.start("max_requests = 2;")
    socks = [echo.tcp() for _ in range(2)]
    wait_until(lambda: "wll be closed (2 requsts queued)" in echo.log(), "the stop")
    with socket.socket() as taken:
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("0.0.0.0", echo.port))
        taken.listen()
        for sock in socks:
            sock.close()
        wait_until(lambda: echo.log().count("rui_start_listener: failed to start usr listener") > 1, "two tries")
    wait_until(lambda: "; 0 requests pending" in echo.log().rpartition("failed to start")[2], "the resumption")
    with echo.tcp() as sock:
        sock.sendall(b"x")
        assert take(sock, 1) == b"x"
    assert echo.stop() == 0


def test_a_service_without_descriptors_goes_on_when_it_has_some(echo):
    echo.start(descriptors=12)
    socks = []

    def short():
        # A connection that meets the shortage itself may be reset before it stands.
        try:
            socks.append(echo.tcp())
        except (ConnectionRefusedError, ConnectionResetError):
            pass
        return "ERROR(24)" in echo.log()

    wait_until(short, "the shortage")
    for sock in socks:
        sock.close()

    def works():
        try:
            with echo.tcp() as sock:
                sock.sendall(b"hello")
                return sock.recv(5) == b"hello"
        except (ConnectionRefusedError, ConnectionResetError):
            return False

    wait_until(works, "a connection")
    assert echo.stop() == 0


# ---- its end ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", ["tcp", "local"])
def test_a_listening_socket_that_fails_ends_the_process(echo, name):
    echo.start()
    with echo.listener("all" if name == "tcp" else echo.path) as listener:
        listener.shutdown(socket.SHUT_RDWR)
    assert echo.process.wait(DEADLINE) == -signal.SIGABRT
    assert f"rui_crash_on_error: HUP listener[{name}] ERROR(0): Success" in echo.log()
    assert "Aborting at:" in echo.log()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_it_ends_in_order_with_connections_open(echo, number):
    echo.start()
    with echo.tcp() as sock, echo.local() as other:
        sock.sendall(b"x")
        assert take(sock, 1) == b"x"
        other.sendall(b"y")
        assert take(other, 1) == b"y"
        assert echo.stop(number) == 0
        assert sock.recv(1) == b""
        assert other.recv(1) == b""


@pytest.mark.parametrize("extra, said", [
    ("max_to_accept = 0;", "Invalid max_accept valie (0)"),
    ("user_request_timeout = 0;", "Invalid user_request_tmout valie (0)"),
    ("admin: { port = 70000; };", "load_listener_from: invalid port value: [70000]"),
    ("admin: { protocol = \"sctp\"; port = 1; };", "load_listener_from: invald protocol for []: sctp"),
    ("admin: { ifc = \"nosuchifc\"; port = 1; };", "invalid network interface name/address: nosuchifc"),
    ("admin: { port = 1; };", "echo takes user listeners, no udp, and max_requests above 1"),
    ("custom: { domain_path = \"/nonexistent/x\"; };", "echo takes user listeners, no udp, and max_requests above 1"),
    ("user: { protocol = \"udp\"; port = 1; };", "echo takes user listeners, no udp, and max_requests above 1"),
    ("max_requests = 1;", "echo takes user listeners, no udp, and max_requests above 1"),
    ("max_requests = -1;", "echo takes user listeners, no udp, and max_requests above 1"),
    ("max_to_accept", "syntax error"),
])
def test_a_bad_configuration_ends_it_with_a_word(echo, extra, said):
    text = extra if "max_to_accept" in extra else "max_to_accept = 1; " + extra
    config = echo.folder / "bad.conf"
    if "user:" not in text:
        text += f" user: {{ port = {echo.port}; }};"
    config.write_text(f"echo: {{ {text} }};")
    done = subprocess.run([BUILD / "example_echo", config], capture_output=True, text=True, timeout=DEADLINE)
    assert done.returncode == 1
    assert said in done.stderr


def test_a_port_that_is_taken_by_another_user_of_it_ends_the_start(echo):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", echo.port))
        taken.listen()
        echo.start()
        assert echo.process.wait(DEADLINE) == 1
    assert "rui_start_listener: failed to start usr listener" in echo.log()


def test_the_command_line_needs_a_file(echo):
    for wrong in [], ["-h"], ["-v"], ["a.conf", "b.conf"]:
        done = subprocess.run([BUILD / "example_echo", *wrong], capture_output=True, text=True, timeout=DEADLINE)
        assert (done.returncode, done.stderr) == (2, "example_echo: usage: echo [-v] FILE.conf\n")
    done = subprocess.run([BUILD / "example_echo", Path("/nonexistent.conf")], capture_output=True, text=True,
                          timeout=DEADLINE)
    assert done.returncode == 1 and "/nonexistent.conf" in done.stderr
