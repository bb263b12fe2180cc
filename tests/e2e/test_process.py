"""kvt as a daemon and in the foreground: pid file, user, signals, what is left behind."""
import os
import pwd
import re
import signal
from pathlib import Path

import pytest

from conftest import SHM, free_port, need, wait_until

root_only = pytest.mark.skipif(os.geteuid() != 0, reason="only root becomes a daemon or another user")
ORDINARY = "nobody"


def read_pid(path):
    text = path.read_text() if path.exists() else ""
    return int(text) if text.isdigit() else None


def gone(pid):
    """No such process, or a zombie that nobody has waited for."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] == "Z"
    except FileNotFoundError:
        return True


@pytest.fixture
def daemon(kvt):
    """Starts kvt as a daemon and ends it with the test."""
    pid_file = kvt.folder / "kvt.pid"

    def start(*args, **config):
        kvt.write_config(non_daemon=False, runtime_extra=f'pidfile = "{pid_file}"; ' + config.pop("runtime_extra", ""),
                         **config)
        kvt.start("-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1", *args)
        assert kvt.process.wait(20) == 0  # the parent has left
        kvt.pid = wait_until(lambda: read_pid(pid_file), "the pid file")
        kvt.wait_reading()
        return kvt

    yield start
    if kvt.pid and not gone(kvt.pid):
        os.kill(kvt.pid, signal.SIGKILL)


@root_only
def test_a_daemon_detaches_and_ends_on_a_signal_leaving_nothing(daemon):
    kvt = daemon()
    status = Path(f"/proc/{kvt.pid}/stat").read_text().rsplit(")", 1)[1].split()
    assert status[1] == "1" or int(status[1]) != kvt.process.pid
    assert int(status[3]) != os.getsid(0)  # a session of its own
    assert int(status[3]) != kvt.pid       # and not its leader, so that it can't regain a terminal
    assert os.readlink(f"/proc/{kvt.pid}/cwd") == "/"
    assert len(kvt.shared_memory()) == 1
    kvt.send(signal.SIGTERM)
    wait_until(lambda: gone(kvt.pid), "the daemon to end")
    assert kvt.shared_memory() == []
    assert not (kvt.folder / "kvt.pid").exists()
    assert "Received QUIT-SIG(15), will exit now." in kvt.log_text()
    assert "EXIT(0)." in kvt.log_text()


@root_only
def test_records_of_a_daemon_without_an_alert_log_reach_neither_its_files_nor_its_ring(kvt):
    pid_file = kvt.folder / "kvt.pid"
    kvt.start("-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1", "-l", kvt.log, "-p", pid_file, use_config=False)
    assert kvt.process.wait(20) == 0
    kvt.pid = wait_until(lambda: read_pid(pid_file), "the pid file")
    try:
        kvt.wait_reading()
        assert [os.readlink(f"/proc/{kvt.pid}/fd/{fd}") for fd in (0, 1)] == ["/dev/null"] * 2
        assert "Source:\n" in kvt.log_text()
        assert "Source:\n" not in kvt.stderr()  # the settings are not for the terminal it left
        kvt.send(signal.SIGTERM)
        wait_until(lambda: gone(kvt.pid), "the daemon to end")
    finally:
        if not gone(kvt.pid):
            os.kill(kvt.pid, signal.SIGKILL)


@root_only
def test_a_daemon_gives_up_root(daemon, tmp_path):
    for folder in [tmp_path, *tmp_path.parents]:
        if folder.stat().st_mode & 0o005 != 0o005 and folder != Path("/"):
            folder.chmod(folder.stat().st_mode | 0o005)
    kvt = daemon(runtime_extra=f'run_as_user = "{ORDINARY}";')
    uid = pwd.getpwnam(ORDINARY).pw_uid
    uids = [line for line in Path(f"/proc/{kvt.pid}/status").read_text().splitlines() if line.startswith("Uid:")]
    assert uids[0].split()[1:] == [str(uid)] * 4
    # The user can enter the directory of the start, so the process went back there.
    assert f"running in [{kvt.folder}]" in kvt.log_text()
    assert os.readlink(f"/proc/{kvt.pid}/cwd") == str(kvt.folder)
    kvt.send(signal.SIGINT)
    wait_until(lambda: gone(kvt.pid), "the daemon to end")
    assert kvt.shared_memory() == []


@root_only
def test_a_second_daemon_takes_over_the_pid_file(daemon, kvt_factory):
    first = daemon()
    second = kvt_factory("second")
    second.write_config(non_daemon=False, runtime_extra=f'pidfile = "{first.folder / "kvt.pid"}";')
    second.start("-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan2")
    second.process.wait(20)
    second.wait_reading()
    second.pid = read_pid(first.folder / "kvt.pid")
    assert second.pid != first.pid
    os.kill(second.pid, signal.SIGTERM)
    wait_until(lambda: gone(second.pid), "the second daemon to end")


@root_only
def test_an_unknown_user_stops_the_start(kvt):
    kvt.write_config(non_daemon=False, runtime_extra='run_as_user = "no-such-user";')
    kvt.start("-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1")
    kvt.process.wait(20)
    wait_until(lambda: "getpwnam: user no-such-user not found" in kvt.stderr() + kvt.log_text(), "the complaint")


@root_only
def test_an_ordinary_user_runs_in_the_foreground(kvt):
    need("runuser")
    kvt.folder.parent.chmod(0o755)
    for folder in kvt.folder.parents:
        if folder != Path("/"):
            folder.chmod(folder.stat().st_mode | 0o005)
    kvt.write_config(non_daemon=False, runtime_extra=f'pidfile = "{kvt.folder}/kvt.pid";')
    kvt.start("-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1", user=ORDINARY)
    kvt.wait_reading()
    assert kvt.process.poll() is None
    kvt.pid = read_pid(kvt.folder / "kvt.pid")
    assert len(kvt.shared_memory()) == 1
    kvt.send(signal.SIGTERM)
    assert kvt.wait() == 0
    assert kvt.shared_memory() == []
    assert not (kvt.folder / "kvt.pid").exists()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_quit_signals_end_a_blocked_read_at_once(kvt, number):
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1").wait_reading()
    assert kvt.stop(number) == 0
    assert f"Received QUIT-SIG({int(number)}), will exit now." in kvt.log_text()
    assert kvt.shared_memory() == []


def test_a_read_time_out_ends_the_run_with_its_number(kvt):
    kvt.write_config(extra="source: { read_tmout_ms = 200; };")
    assert kvt.run("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1") == 11
    assert "recv(fd" in kvt.log_text()
    assert "ERROR(11)" in kvt.log_text()
    assert "stopped reading due to error in [recv/Read_f], rc=11" in kvt.log_text()


def test_runs_in_turn_leave_no_shared_memory(kvt_factory):
    before = set(SHM.iterdir())
    for name in ("one", "two"):
        run = kvt_factory(name)
        run.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "chan1").wait_reading()
        run.stop()
    assert set(SHM.iterdir()) <= before


def test_private_memory_stays_small(kvt, tcp_server, clean_stream):
    server = tcp_server()
    kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1").wait_reading()
    connection = server.accept()
    for _ in range(8):
        connection.sendall(clean_stream)
    kvt.wait_log(r"skipped before analysis")
    status = Path(f"/proc/{kvt.pid}/status").read_text()
    anonymous = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("RssAnon:"))
    assert anonymous <= 8 * 1024
    assert kvt.stop() == 0


def test_a_system_call_trace_opens_with_its_variable(kvt):
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "x", env={"SYSW_DEBUG": "1"}).wait_reading()
    assert kvt.stop() == 0
    assert "opened socket fd=" in kvt.log_text()


@pytest.mark.parametrize("value", ["0", "", "10", "yes"])
def test_only_1_opens_the_system_call_trace(kvt, value):
    kvt.start("-T", "-i", f"udp://127.0.0.1:{free_port()}", "-S", "x", "-L", "debug",
              env={"SYSW_DEBUG": value}).wait_reading()
    assert kvt.stop() == 0
    assert "(DBG)" in kvt.log_text()
    assert "opened socket fd=" not in kvt.log_text()


@pytest.mark.parametrize("args, told", [
    (["-i", "nothing"], "kvt shut down"),  # the source
    (["-i", "udp://127.0.0.1:1", "-a", "/nonexistent/alerts"], "runtime_setup: FAILED (rc=-1)"),
])
def test_a_start_that_fails_is_shut_down_like_a_run(kvt, args, told):
    pid_file = kvt.folder / "kvt.pid"
    assert kvt.run("-T", "-S", "x", "-p", pid_file, *args) == 1
    assert f"Created pidfile [{pid_file}] with pid={kvt.pid}." in kvt.stderr()
    log = kvt.log_text()
    assert told in log
    assert re.search(rf"kvt shut down\n.* EXIT\(1\)\. PID={kvt.pid}\n$", log)
    assert not pid_file.exists()
    assert kvt.shared_memory() == []
