"""The command line as a user meets it: texts and exit statuses."""
import os
import re
import subprocess

import pytest

from conftest import BUILD

KVT = str(BUILD / "kvt")
GUIDE_OPTIONS = ["-i|--source   {URL}         = source stream URL", "-t|--tail     {mb}:{ms}     = tail size/time in Mb/ms [2:500]",
                 "-R|--minread  {nbytes}      = number of bytes to be vacant [4096]",
                 "-h|?|--help                 = output this option guide"]


def run(*args, cwd=None):
    return subprocess.run([KVT, *args], capture_output=True, text=True, timeout=20, stdin=subprocess.DEVNULL, cwd=cwd)


@pytest.mark.parametrize("args", [[], ["-h"], ["--help"], ["-?"], ["--options"], ["-R", "4096"], ["-D", "/tmp"],
                                  ["-x", "pfx"], ["--nonsense"]])
def test_shows_the_guide_and_leaves_with_1(args, tmp_path):
    done = run(*args, cwd=tmp_path)
    assert done.returncode == 1
    assert "Usage: kvt -i {source} OPTIONS" in done.stderr
    for line in GUIDE_OPTIONS:
        assert line in done.stderr
    assert "kvt (Live stream analyzer) 0.1" in done.stderr
    assert "----\nlibtvn/1.5-6.11 (" in done.stderr


def test_version_is_one_line(tmp_path):
    done = run("-V", cwd=tmp_path)
    assert done.returncode == 1
    assert done.stderr.startswith("kvt (Live stream analyzer) 0.1-10.2 (marltools) regular [")
    assert len(done.stderr.splitlines()) == 1


@pytest.mark.parametrize("args, text", [
    (["-S", "x"], "Source URL must be specified, run {argv0} --help for options\n"),
    (["-i", "udp://127.0.0.1:1", "-A", "on"], "Source tag (-S) must be specified, run {argv0} --help for options\n"),
    (["-i", "udp://127.0.0.1:1", "-E", "2048"], "Invalid cache size=2048 (0..2048)\n"),
    (["-i", "udp://127.0.0.1:1", "-E", "0"], "Invalid cache size=0 (0..2048)\n"),
    (["-i", "udp://127.0.0.1:1", "-t", "3"], "Missing colon in -t value: 3\n"),
    (["-i", "udp://127.0.0.1:1", "-t", "683:1"], "Cache size out of range: 683 (1..682)\n"),
    (["-i", "udp://127.0.0.1:1", "-L", "loud"], "Invalid log level: loud\n"),
    (["-i", "udp://127.0.0.1:1", "-l", "x" * 128], "Log path is too long (128 bytes), max=128 bytes.\n"),
    (["-i", "udp://127.0.0.1:1", "-a", "x" * 130], "Alert log path is too long (130 bytes), max=128 bytes.\n"),
    (["-i", "udp://127.0.0.1:1", "-p", "x" * 128], "Pidfile path is too long (128 bytes), max=128 bytes.\n"),
    (["-i", "udp://127.0.0.1:1", "-A", "nonsense"], "invalid option string format: nonsense\n"),
    (["-i", "udp://127.0.0.1:1", "-A", "pcr_delta=-1"], "invalid parameter value: pcr_delta/-1\n"),
])
def test_a_bad_value_is_told_and_leaves_with_1(args, text, tmp_path):
    done = run("-T", *args, cwd=tmp_path)
    assert done.returncode == 1
    assert text.format(argv0=KVT) in done.stderr


def test_a_configuration_file_that_does_not_exist_is_refused(tmp_path):
    done = run("-T", "-C", "nowhere.conf", "-i", "udp://127.0.0.1:1", cwd=tmp_path)
    assert done.returncode == 1
    assert "Failed to load [nowhere.conf]\n" in done.stderr


def test_a_wrong_line_in_the_configuration_is_named(kvt):
    kvt.config_path.write_text('kvt:\n{\n  log: { file = "" };\n  runtime: { quiet = ; };\n};\n')
    assert kvt.run("-T", "-i", "udp://127.0.0.1:1") == 1
    assert f"Error reading/parsing config file [{kvt.config_path}]: line 4: syntax error\n" in kvt.stderr()


@pytest.mark.parametrize("body, text", [("", "missing log section"), ('log: { file = ""; };', "missing runtime section")])
def test_a_configuration_without_its_sections_is_refused(kvt, body, text):
    kvt.config_path.write_text("kvt: { %s };" % body)
    assert kvt.run("-T", "-i", "udp://127.0.0.1:1") == 1
    assert text in kvt.stderr()


def test_too_few_vacant_bytes_show_their_numbers_out_of_place(kvt):
    kvt.write_config(extra="cache: { min_bytes_left = 1399; };")
    assert kvt.run("-T", "-i", "udp://127.0.0.1:1", "-S", "x") == 1
    assert "-R value (1400) should be >= 1399 and less than 2097152\n" in kvt.stderr()


def test_root_without_a_log_path_is_no_daemon(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("only root becomes a daemon")
    done = run("-i", "udp://127.0.0.1:1", "-S", "x", cwd=tmp_path)
    assert done.returncode == 1
    assert "Logfile must be specified to run as daemon\n" in done.stderr


def test_term_mode_shows_the_settings_in_the_log_and_on_the_terminal(kvt):
    status = kvt.run("-T", "-i", "file:///dev/null", "-S", "x", "-l", kvt.log, use_config=False)
    assert status != 0
    for text in (kvt.log_text(), kvt.stderr()):
        assert "Source:\n\tURL            = file:///dev/null\n" in text
        identity = r"kvt \(Live stream analyzer\) 0\.1-10\.2 \(marltools\) regular \[.*"
        assert re.search(rf"\(NRM\)  KVTI  {identity} STARTING\. PID={kvt.pid}\n", text)
        assert "kvt shut down\n" in text
        assert re.search(rf"\(NRM\)  KVTI  {identity} EXIT\({status}\)\. PID={kvt.pid}\n", text)


def test_quiet_keeps_the_terminal_clear(kvt):
    kvt.run("-T", "-q", "-i", "file:///dev/null", "-S", "x", "-l", kvt.log, use_config=False)
    assert "Source:\n\tURL            = file:///dev/null\n" in kvt.log_text()
    assert "Source:\n" not in kvt.stderr()


def test_without_a_log_path_the_settings_are_shown_once(kvt):
    kvt.run("-T", "-i", "file:///dev/null", "-S", "x", use_config=False)
    assert kvt.stderr().count("Source:\n\tURL            = file:///dev/null\n") == 1
    assert kvt.stderr().count("kvt shut down\n") == 1


def test_the_level_counts_once_the_command_line_is_parsed(kvt):
    kvt.write_config(level="debug")
    kvt.run("-T", "-L", "norm", "-i", "file:///dev/null", "-S", "x")
    assert f"(DBG)  KVTI  Using config at [{kvt.config_path}]\n" in kvt.stderr()
    assert "STARTING." in kvt.log_text()
    assert "(INF)" not in kvt.log_text() + kvt.stderr()
    assert "(DBG)" not in kvt.log_text()


def test_a_configuration_file_overrides_quiet(kvt):
    """-q is stored before the file is read, and the file's own key, false when missing, comes later."""
    kvt.write_config()
    kvt.config_path.write_text(kvt.config_path.read_text().replace("quiet = true;", ""))
    kvt.run("-T", "-q", "-i", "file:///dev/null", "-S", "x")
    assert "Source:\n" in kvt.stderr()


def test_a_numeric_id_names_the_log(kvt_factory):
    run_a = kvt_factory()
    run_a.run("-T", "-q", "-N", "7", "-i", "file:///dev/null", "-l", run_a.folder / "kvt-{N}.log", use_config=False)
    assert (run_a.folder / "kvt-7.log").exists()


def test_a_local_file_ends_at_once_as_it_is_no_socket(kvt):
    status = kvt.run("-T", "-i", f"file://{kvt.binary}", "-S", "x")
    assert status == 1
    assert "stopped reading due to error in [set_rcv_timeout], rc=-1" in kvt.log_text()


def test_the_first_configuration_file_found_is_used(kvt):
    kvt.write_config()
    kvt.run("-T", "-i", "file:///dev/null", "-S", "x", use_config=False, cwd=kvt.folder)
    assert "Using config at [./kvt.conf]" in kvt.stderr()
    assert "Source:\n" in kvt.log_text()

