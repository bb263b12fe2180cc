#!/usr/bin/env bash
# Builds kvt and kvt-play, and runs kvt in the foreground; Ctrl-C ends it.
#   scripts/run.sh                 kvt-play plays the bundled sample stream with known faults over loopback, kvt watches
#   scripts/run.sh ARGUMENT...     the arguments go to kvt: scripts/run.sh -i udp://239.1.1.1:5000 -S chan1 -A on
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KVT_BUILD:-$root/build}

"$root/scripts/bootstrap.sh" run
echo "run: building kvt and kvt-play in ${build#"$PWD"/} (the first time takes a minute)" >&2
log=$(mktemp)
if ! { cmake -S "$root" -B "$build" && cmake --build "$build" -j "$(nproc)" --target kvt kvt-play; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    exit 1
fi
rm -f "$log"

if (($#)); then
    exec "$build/kvt" -T "$@"
fi

work=$(mktemp -d)
alerts=$work/alerts.log
kvt_pid= sender_pid=
cleanup() {
    [[ -z $sender_pid ]] || kill "$sender_pid" 2>/dev/null || true
    [[ -z $kvt_pid ]] || kill "$kvt_pid" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

port=$(python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat <<MESSAGE
run: watching the sample stream on udp://127.0.0.1:$port for half a minute. It has known faults, listed in
     tests/data/README.md; the last one is a lost sync that kvt gives up on, so the run ends with status 9.
     Lines with ALERT are for people; the machine-readable ones are shown at the end.
MESSAGE
"$build/kvt" -T -C "$root/tests/data/sample.conf" -i "udp://127.0.0.1:$port" -S sample -a "$alerts" &
kvt_pid=$!
# The sender starts when the receiver's socket is there.
until grep -q "$(printf ':%04X ' "$port")" /proc/net/udp 2>/dev/null; do
    kill -0 "$kvt_pid" 2>/dev/null || break
    sleep 0.1
done
# It leaves nothing beside the sample, and says the end should kvt still be there then.
TMPDIR=$work "$build/kvt-play" --no-index --quiet --end "$root/tests/data/sample.ts" "udp://127.0.0.1:$port" &
sender_pid=$!
status=0
wait "$kvt_pid" || status=$?
kvt_pid=
echo "run: kvt left with status $status. Its alert log:"
cat "$alerts"
