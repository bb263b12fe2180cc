"""kvt-ringlog: ring logs of processes that live, ended or crashed, shown and followed."""
import os
import re
import signal
import struct
import subprocess

import pytest

from conftest import BUILD, DEADLINE, SHM, wait_until

TOOL = BUILD / "kvt-ringlog"
WRITER = BUILD / "tests" / "ringlog_writer"
PAGE = os.sysconf("SC_PAGE_SIZE")


class Writer:
    """A process that writes a ring log as it is told."""

    def __init__(self, name, pages):
        self.name = name
        self.process = subprocess.Popen([str(WRITER), name, str(pages)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True, bufsize=1)
        self.answer()

    def answer(self):
        assert self.process.stdout.readline() == "ok\n"

    def tell(self, *lines):
        for line in lines:
            self.process.stdin.write(line + "\n")
            self.answer()
        return self

    def crash(self):
        self.process.kill()
        self.process.wait(DEADLINE)

    def leave(self):
        self.process.stdin.close()
        assert self.process.wait(DEADLINE) == 0

    def end(self):
        if self.process.poll() is None:
            self.crash()
        for stream in (self.process.stdin, self.process.stdout):
            stream.close()
        for kind in ("meta", "dat"):
            (SHM / f"{self.name}.{kind}").unlink(missing_ok=True)


@pytest.fixture
def writer():
    writers = []

    def start(pages=1):
        writers.append(Writer(f"e2e.{os.getpid()}.{len(writers)}", pages))
        return writers[-1]

    yield start
    for one in writers:
        one.end()


def show(*args, **kwargs):
    return subprocess.run([str(TOOL), *map(str, args)], capture_output=True, timeout=DEADLINE, **kwargs)


def text_of(name):
    done = show("-t", name)
    assert (done.returncode, done.stderr) == (0, b"")
    return done.stdout


def test_a_living_writer_its_temperature_and_its_text_are_shown(writer):
    w = writer().tell("puts one", "puts two", "temp 3")
    done = show(w.name)
    assert done.returncode == 0
    assert done.stderr == b""
    head, text = done.stdout.decode().split("----\n")
    assert head.splitlines()[:3] == [f"ring log:    {w.name}, 8 of {PAGE} bytes",
                                     f"owner:       {w.process.pid}, running",
                                     "temperature: 3"]
    assert re.fullmatch(r"last write:  \d+\.\d{3} s ago", head.splitlines()[3])
    assert text == "one\ntwo\n"


def test_a_ring_log_to_which_nothing_was_written_is_shown(writer):
    out = show(writer().name).stdout.decode()
    assert "0 of" in out and "last write:  never\n" in out and out.endswith("----\n")


def test_the_last_words_of_a_crashed_writer_are_shown(writer):
    w = writer().tell("puts last words", "temp 4")
    w.crash()
    done = show(w.name)
    assert done.returncode == 0
    out = done.stdout.decode()
    assert f"owner:       {w.process.pid}, crashed\n" in out
    assert "temperature: 4\n" in out
    assert out.endswith("----\nlast words\n")


def test_a_writer_that_closed_has_not_crashed(writer):
    w = writer().tell("puts bye", "close")
    assert f"owner:       {w.process.pid}, closed its ring log\n" in show(w.name).stdout.decode()
    w.leave()
    out = show(w.name).stdout.decode()
    assert f"owner:       {w.process.pid}, closed its ring log\n" in out
    assert out.endswith("----\nbye\n")


def test_a_writer_that_ended_without_closing_counts_as_crashed(writer):
    w = writer()
    w.leave()
    assert ", crashed\n" in show(w.name).stdout.decode()


def test_a_full_ring_shows_its_newest_bytes_to_the_last(writer):
    w = writer()
    lines = [f"line {i} of many" for i in range(1000)]
    w.tell(*(f"puts {line}" for line in lines))
    everything = "".join(line + "\n" for line in lines).encode()
    assert text_of(w.name) == everything[-(PAGE - 1):]


def test_bytes_that_would_steer_a_terminal_are_question_marks(writer):
    w = writer().tell("puts red \x1b[31m, bell \x07, delete \x7f, tab \t, and umlauts: äöü")
    assert text_of(w.name).decode() == "red ?[31m, bell ?, delete ?, tab \t, and umlauts: äöü\n"


def test_the_ring_log_stays_as_it_is(writer):
    w = writer().tell("puts one")
    before = [(SHM / f"{w.name}.{kind}").read_bytes() for kind in ("meta", "dat")]
    show(w.name)
    assert [(SHM / f"{w.name}.{kind}").read_bytes() for kind in ("meta", "dat")] == before


# ---- following ----


@pytest.fixture
def follower():
    running = []

    def start(name, path, *args):
        with path.open("wb") as out, path.with_suffix(".err").open("wb") as err:
            running.append(subprocess.Popen([str(TOOL), "-f", *args, name], stdout=out, stderr=err))
        return running[-1]

    yield start
    for process in running:
        process.kill()
        process.wait()


def wait_text(path, text):
    wait_until(lambda: path.read_text() == text, f"{text!r} in {path}")


def test_following_goes_on_until_the_writer_crashes(writer, follower, tmp_path):
    w = writer().tell("puts one")
    out = tmp_path / "out"
    process = follower(w.name, out, "-t")
    wait_text(out, "one\n")
    w.tell("raw tw")
    wait_text(out, "one\ntw")
    w.tell("raw o", "puts !", "temp 2")
    wait_text(out, "one\ntwo!\n")
    assert process.poll() is None
    w.crash()
    assert process.wait(DEADLINE) == 0
    assert out.read_text() == "one\ntwo!\n"
    assert out.with_suffix(".err").read_text() == f"kvt-ringlog: owner {w.process.pid} crashed, temperature 2\n"


def test_following_gets_what_is_written_right_before_the_end(writer, follower, tmp_path):
    w = writer()
    out = tmp_path / "out"
    process = follower(w.name, out)
    wait_until(lambda: out.read_text().endswith("----\n"), "the head")
    w.tell("puts famous", "puts last words", "destroy")
    assert process.wait(DEADLINE) == 0
    assert out.read_text().endswith("----\nfamous\nlast words\n")
    assert "closed its ring log" in out.with_suffix(".err").read_text()


def test_following_shows_the_head_first(writer, follower, tmp_path):
    w = writer().tell("puts one")
    out = tmp_path / "out"
    follower(w.name, out)
    wait_until(lambda: out.read_text().endswith("----\none\n"), "the text")
    assert f"owner:       {w.process.pid}, running\n" in out.read_text()


def test_a_follower_that_was_overtaken_says_so(writer, follower, tmp_path):
    w = writer().tell("puts seen")
    out = tmp_path / "out"
    process = follower(w.name, out, "-t")
    wait_text(out, "seen\n")
    process.send_signal(signal.SIGSTOP)
    w.tell(f"bytes {PAGE + 500} z", "puts end")
    process.send_signal(signal.SIGCONT)
    wait_text(out, "seen\n" + "z" * (PAGE - 5) + "end\n")
    assert out.with_suffix(".err").read_text() == "kvt-ringlog: text went by unread\n"


def test_following_the_dead_ends_at_once(writer):
    w = writer().tell("puts one")
    w.crash()
    done = show("-f", "-t", w.name)
    assert (done.returncode, done.stdout) == (0, b"one\n")


# ---- refusals ----


def test_a_name_that_is_not_there_is_told():
    done = show("no.such.ring.log")
    assert (done.returncode, done.stdout) == (1, b"")
    assert done.stderr == b"kvt-ringlog: there is no ring log no.such.ring.log\n"


@pytest.mark.parametrize("name, why", [("a/b", "Invalid argument"), ("n" * 300, "File name too long")])
def test_a_name_that_can_not_be_is_told(name, why):
    done = show(name)
    assert (done.returncode, done.stderr.decode()) == (1, f"kvt-ringlog: can't open {name}: {why}\n")


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can lose rights")
def test_a_ring_log_of_somebody_else_is_told(writer):
    w = writer()
    done = show(w.name, user="nobody")
    assert (done.returncode, done.stderr.decode()) == (1, f"kvt-ringlog: can't open {w.name}: Permission denied\n")


def damage(name, kind, offset, data):
    with (SHM / f"{name}.{kind}").open("r+b") as f:
        f.seek(offset)
        f.write(data)


def test_a_ring_log_that_is_not_finished_is_told(writer):
    w = writer()
    damage(w.name, "meta", 0, bytes(8))
    done = show(w.name)
    assert done.returncode == 1
    assert done.stderr.decode() == (f"kvt-ringlog: {w.name} is not finished: it is being made, or its writer died "
                                    "at it\n")
    os.truncate(SHM / f"{w.name}.meta", 0)
    assert "is not finished" in show(w.name).stderr.decode()


def test_damaged_ring_logs_are_told_and_never_read_past_their_end(writer):
    w = writer().tell("puts one")
    for start, length in ((PAGE, 1), (0, PAGE + 1), (2**64 - 1, 2), (5, 2**64 - 1)):
        damage(w.name, "meta", 8, struct.pack("QQ", start, length))
        done = show(w.name)
        assert (done.returncode, done.stdout) == (1, b"")
        assert done.stderr.decode() == f"kvt-ringlog: {w.name} is damaged: its record points outside the ring\n"
    damage(w.name, "meta", 0, struct.pack("Q", 1000))
    done = show(w.name)
    assert done.returncode == 1
    assert done.stderr.decode() == (f"lard_open: /{w.name}.dat has {3 * PAGE} bytes, too few for what it says to "
                                    "be\n")


def test_a_time_of_writing_that_can_not_be_is_shown_as_what_it_says(writer):
    w = writer().tell("puts one")
    for seconds, sign in ((-2**63, ""), (2**63 - 1, "-")):
        damage(w.name, "meta", 32, struct.pack("q", seconds))
        assert re.search(rf"^last write:  {sign}92233720\d{{11}}\.000 s ago$", show(w.name).stdout.decode(), re.M)


@pytest.mark.parametrize("args, why", [((), "which ring log? Give its name"), (("a", "b"), "one name at a time")])
def test_a_command_line_without_one_name_is_told(args, why):
    done = show(*args)
    assert (done.returncode, done.stdout) == (1, b"")
    assert done.stderr.decode() == f"kvt-ringlog: {why}\nTry 'kvt-ringlog --help'.\n"


def test_an_unknown_option_is_told():
    done = show("-x", "name")
    assert done.returncode == 1
    assert b"invalid option -- 'x'" in done.stderr and done.stderr.endswith(b"Try 'kvt-ringlog --help'.\n")


def test_help_goes_to_the_output():
    for option in ("-h", "--help"):
        done = show(option)
        assert (done.returncode, done.stderr) == (0, b"")
        assert done.stdout.startswith(b"Usage: kvt-ringlog [-ft] NAME\n")


def test_output_that_can_not_be_written_is_told(writer):
    w = writer().tell("puts one")
    with open("/dev/full", "wb") as full:
        done = subprocess.run([str(TOOL), w.name], stdout=full, stderr=subprocess.PIPE, timeout=DEADLINE)
    assert done.returncode == 1
    assert done.stderr == b"kvt-ringlog: can't write: No space left on device\n"
