"""The configuration file is read again while the program runs."""
import os
import time

import pytest

import tsfile as ts
import tsmodel
from conftest import wait_until
from livefeed import PACKED, PACKET, LiveFeed, RingModel

PERIOD = "config_reload_period = 1; "


@pytest.fixture
def fed(kvt, tcp_server, clean_stream):
    """A running kvt and a function that feeds it some more of a stream: the reload check comes with a read."""
    server = tcp_server()
    state = {"at": 0}

    def start(**config):
        kvt.write_config(extra=PERIOD + config.pop("extra", ""), **config)
        kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1").wait_reading()
        connection = server.accept()

        def feed():
            connection.sendall(clean_stream[state["at"]:state["at"] + 188 * 70])
            state["at"] = (state["at"] + 188 * 70) % (len(clean_stream) // 188 * 188)

        return kvt, feed

    return start


def rewrite(kvt, **config):
    """Writes the file anew with a later time, whatever the file system's resolution is."""
    before = kvt.config_path.stat().st_mtime
    kvt.write_config(extra=PERIOD + config.pop("extra", ""), **config)
    os.utime(kvt.config_path, (before + 2, before + 2))


def feed_until(kvt, feed, text):
    def fed_and_seen():
        feed()
        time.sleep(0.05)
        return text in kvt.log_text()

    wait_until(fed_and_seen, text)


def test_a_changed_file_is_read_and_takes_effect(fed):
    kvt, feed = fed()
    rewrite(kvt, extra="stats: { tput_report_sec = 1; };")
    feed_until(kvt, feed, "updated, re-loading config")
    # A reload puts the file's value in the place of the command line's: the file names no source tag.
    feed_until(kvt, feed, "IN total: - ")
    assert kvt.stop() == 0


def test_a_broken_file_leaves_the_settings(fed):
    kvt, feed = fed(extra="stats: { tput_report_sec = 1; };")
    kvt.config_path.write_text("kvt: {")
    os.utime(kvt.config_path, (time.time() + 5, time.time() + 5))
    feed_until(kvt, feed, "older version retained")
    feed_until(kvt, feed, "IN total: chan1")
    assert kvt.log_text().count("older version retained") == 1
    assert kvt.stop() == 0


def test_a_missing_snapshot_folder_leaves_the_settings(fed):
    kvt, feed = fed()
    rewrite(kvt, extra='snapshot: { dir_path = "/nowhere/at/all"; };')
    feed_until(kvt, feed, "older version retained")
    assert "opendir('/nowhere/at/all', ...) ERROR(2)" in kvt.log_text()
    assert kvt.stop() == 0


def test_a_deleted_file_is_complained_of_and_read_when_it_returns(fed):
    kvt, feed = fed()
    kvt.config_path.unlink()
    feed_until(kvt, feed, f"FAILED to retrieve mtime for [{kvt.config_path}]")
    kvt.write_config(extra=PERIOD)
    feed_until(kvt, feed, "updated, re-loading config")
    assert kvt.stop() == 0


@pytest.mark.parametrize("at_start", [True, False])
def test_a_reload_switches_the_analyzer_while_the_ring_turns_over(kvt, tcp_server, clean_stream, at_start):
    def write(enabled):
        kvt.write_config(extra=PERIOD + "cache: { size_mb = 1; };")
        text = kvt.config_path.read_text()
        kvt.config_path.write_text(text.replace("{ enabled = true;", f"{{ enabled = {str(enabled).lower()};"))

    write(at_start)
    server = tcp_server()
    kvt.start("-T", "-i", f"tcp://127.0.0.1:{server.port}", "-S", "chan1").wait_reading()
    feed = LiveFeed(kvt, server.accept(), clean_stream * 4, RingModel(record=PACKET if at_start else PACKED))
    feed.send_up_to(2 * len(clean_stream), [1316])
    before = kvt.config_path.stat().st_mtime
    write(not at_start)
    os.utime(kvt.config_path, (before + 2, before + 2))

    def reloaded():
        feed.send(PACKET)
        time.sleep(0.05)
        return "updated, re-loading config" in kvt.log_text()

    wait_until(reloaded, "the reload")
    feed.send_up_to(4 * len(clean_stream), [1316])  # the ring turns over
    assert kvt.stop() == 0
    # Switched on later it follows the stream, but with the settings of the start, which check nothing.
    assert "using PAT" in kvt.log_text()
    seen = len(kvt.alerts("CC-BRK"))
    # Counters break where the stream begins anew; those behind the reload are not looked at.
    breaks = tsmodel.continuity_breaks(list(ts.packets(clean_stream * 4)))
    assert 0 < seen < len(breaks) if at_start else seen == 0
