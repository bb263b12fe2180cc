"""The example service `follow` as a process: what is appended to a file, through rotation and truncation."""
import hashlib
import os
import re
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from conftest import ASAN_BUILD, BUILD, DEADLINE, wait_until


class Follow:
    """One run of follow on one file, its output kept in a file."""

    def __init__(self, folder, build):
        self.path = folder / "app.log"
        self.out_path = folder / "out"
        self.err_path = folder / "err"
        self.binary = build / "example_follow"
        self.process = None

    def start(self, *args, stdout=None, under=()):
        self.process = subprocess.Popen([*under, self.binary, *args, self.path], stdin=subprocess.DEVNULL,
                                        stdout=stdout or self.out_path.open("wb"), stderr=self.err_path.open("wb"))
        return self

    def append(self, text):
        with self.path.open("a") as file:
            file.write(text)

    def watched_inodes(self):
        inodes = set()
        for info in Path(f"/proc/{self.process.pid}/fdinfo").iterdir():
            try:
                text = info.read_text()
            except FileNotFoundError:
                continue  # closed since it was listed, as descriptors are while the program is loaded
            inodes |= {int(ino, 16) for ino in re.findall(r"^inotify .*\bino:([0-9a-f]+)", text, re.M)}
        return inodes

    def wait_watching(self):
        """The file that has the name now is watched, and no other."""
        wait_until(lambda: self.watched_inodes() == {self.path.stat().st_ino}, "the watch:\n" + self.err())
        return self

    def wait_waiting(self):
        """It is in its loop, with nothing to watch."""
        wait_until(lambda: "ep_poll" in wchan(self.process.pid) or "epoll" in wchan(self.process.pid), "the loop")
        return self

    def out(self):
        return self.out_path.read_text()

    def err(self):
        return self.err_path.read_text()

    def wait_out(self, text):
        wait_until(lambda: self.out() == text, f"{text!r} in {self.out_path}, stderr {self.err_path}")

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.process.wait(DEADLINE)


def wchan(pid):
    return Path(f"/proc/{pid}/wchan").read_text()


@pytest.fixture(params=["plain", "asan"])
def follow(request, tmp_path):
    build = BUILD if request.param == "plain" else ASAN_BUILD
    if request.param == "asan" and not (build / "example_follow").exists():
        pytest.skip("no build under AddressSanitizer")
    run = Follow(tmp_path, build)
    yield run
    if run.process and run.process.poll() is None:
        run.process.kill()
        run.process.wait()


def test_prints_what_is_appended(follow):
    follow.append("old\n")
    follow.start().wait_watching()
    follow.append("one\n")
    follow.wait_out("one\n")
    follow.append("two\n")
    follow.append("three\n")
    follow.wait_out("one\ntwo\nthree\n")
    assert follow.stop() == 0


def test_prints_the_whole_file_when_told_to(follow):
    follow.append("old\n")
    follow.start("-a")
    follow.wait_out("old\n")
    follow.append("new\n")
    follow.wait_out("old\nnew\n")
    assert follow.stop() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_ends_on_a_quit_signal(follow, number):
    follow.append("")
    follow.start().wait_watching()
    assert follow.stop(number) == 0


def test_stays_with_the_name_when_the_file_is_renamed(follow):
    follow.append("")
    follow.start().wait_watching()
    follow.append("1\n")
    with follow.path.open("a") as old:
        follow.path.rename(follow.path.with_suffix(".1"))
        old.write("2, to the old file\n")
        old.flush()
        follow.wait_out("1\n2, to the old file\n")  # the old file is followed as long as there is no new one
        old.write("3, as well\n")
    follow.append("4, to the new file\n")
    follow.wait_out("1\n2, to the old file\n3, as well\n4, to the new file\n")
    follow.wait_watching()
    follow.append("5\n")
    follow.wait_out("1\n2, to the old file\n3, as well\n4, to the new file\n5\n")
    assert follow.stop() == 0
    assert "ERROR" not in follow.err()


def test_stays_with_the_name_when_the_file_is_deleted(follow):
    follow.append("")
    follow.start().wait_watching()
    for turn in range(3):
        follow.path.unlink()
        follow.append(f"{turn}\n")
        follow.wait_out("".join(f"{i}\n" for i in range(turn + 1)))
        follow.wait_watching()
    assert follow.stop() == 0
    assert "ERROR" not in follow.err()


def test_stays_with_the_name_when_another_file_is_moved_over_it(follow):
    follow.append("")
    follow.start().wait_watching()
    fresh = follow.path.with_name("fresh")
    fresh.write_text("fresh\n")
    fresh.rename(follow.path)
    follow.wait_out("fresh\n")
    follow.wait_watching()
    assert follow.stop() == 0


def test_goes_on_with_a_file_that_comes_back(follow):
    follow.append("")
    follow.start().wait_watching()
    away = follow.path.with_name("away")
    follow.path.rename(away)
    away.rename(follow.path)
    follow.append("still here\n")
    follow.wait_out("still here\n")
    assert follow.stop() == 0


@pytest.mark.parametrize("follow", ["plain"], indirect=True)  # the leak checker can't work in a traced process
def test_does_not_print_again_what_comes_back_for_a_moment(follow, tmp_path):
    """The name goes while follow, which has just opened it, compares the file with its own."""
    strace = shutil.which("strace")
    if not strace:
        pytest.skip("no strace to slow the comparison down")
    trace = tmp_path / "trace"
    follow.append("old\n")
    # -D makes the tracer the grandchild, so that the process is follow itself.
    follow.start(under=[strace, "-Dqo", trace, "-e", "trace=openat,%%stat", "-e", "inject=%%stat:delay_enter=300000"])

    def looks(result):
        return len(re.findall(rf'^openat.*"{re.escape(str(follow.path))}".* = {result}', trace.read_text(), re.M))

    follow.wait_watching()
    away = follow.path.with_name("away")
    follow.path.rename(away)
    wait_until(lambda: looks("-1 ENOENT") >= 3, "looks that find nothing, with no news left")
    found = looks("[0-9]")
    away.rename(follow.path)
    wait_until(lambda: looks("[0-9]") > found, "a look that finds the file")
    follow.path.rename(away)
    follow.append("new\n")
    follow.wait_out("new\n")
    follow.wait_watching()
    assert follow.stop() == 0


def test_begins_anew_with_a_truncated_file(follow):
    follow.append("")
    follow.start().wait_watching()
    follow.append("a long line before the cut\n")
    follow.wait_out("a long line before the cut\n")
    os.truncate(follow.path, 0)
    follow.append("short\n")
    follow.wait_out("a long line before the cut\nshort\n")
    assert follow.stop() == 0


def test_waits_for_a_file_that_is_not_there(follow):
    follow.start().wait_waiting()
    follow.append("at last\n")
    follow.wait_out("at last\n")
    follow.wait_watching()
    follow.append("and on\n")
    follow.wait_out("at last\nand on\n")
    assert follow.stop() == 0


def test_passes_on_a_large_piece_whole(follow):
    follow.append("")
    follow.start().wait_watching()
    piece = os.urandom(5_000_000)
    with follow.path.open("ab") as file:
        file.write(piece)
    wait_until(lambda: follow.out_path.stat().st_size >= len(piece), "the piece")
    assert hashlib.sha256(follow.out_path.read_bytes()).digest() == hashlib.sha256(piece).digest()
    assert follow.stop() == 0


def test_survives_more_news_than_the_loop_takes_at_once(follow):
    follow.append("")
    follow.start().wait_watching()
    follow.process.send_signal(signal.SIGSTOP)
    wait_until(lambda: Path(f"/proc/{follow.process.pid}/stat").read_text().rsplit(")", 1)[1].split()[0] == "T",
               "the stop")
    lines = [f"{i}\n" for i in range(300)]
    for line in lines:
        follow.append(line)  # a write and a close are two records
    follow.process.send_signal(signal.SIGCONT)
    follow.wait_out("".join(lines))
    assert "incompatible buffer size" in follow.err()
    follow.append("and on\n")
    follow.wait_out("".join(lines) + "and on\n")
    assert follow.stop() == 0


def test_ends_when_nobody_reads_its_output(follow):
    follow.append("")
    read_end, write_end = os.pipe()
    follow.start(stdout=write_end).wait_watching()
    os.close(write_end)
    os.close(read_end)
    follow.append("x\n")
    assert follow.process.wait(DEADLINE) == -signal.SIGPIPE


def test_fails_on_what_is_no_file(follow):
    follow.path.mkdir()
    follow.start("-a")
    assert follow.process.wait(DEADLINE) == 1
    assert "ERROR(21)" in follow.err()


@pytest.mark.parametrize("args", [[], ["-x", "file"], ["one", "two"], ["-?"]])
def test_shows_its_usage(args):
    done = subprocess.run([BUILD / "example_follow", *args], capture_output=True, text=True, timeout=DEADLINE)
    assert done.returncode == 2
    assert done.stderr.endswith("usage: follow [-a] [-v] FILE\n")


def test_logs_the_loop_when_asked(follow):
    follow.append("")
    follow.start("-v").wait_watching()
    assert follow.stop() == 0
    assert "Entering event loop" in follow.err()
    assert "Exiting event loop, 0 failed, rc=0, quit=1" in follow.err()
