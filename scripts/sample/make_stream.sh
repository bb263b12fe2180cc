#!/usr/bin/env bash
# Makes a clean stream with ffmpeg: MPEG-2 or H.264 video with B-frames, two audio tracks, DVB subtitles.
#   make_stream.sh FILE [SECONDS] [VIDEO_CODEC]
set -euo pipefail
out=$1
seconds=${2:-30}
codec=${3:-mpeg2video}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$here/make_subtitles.py" "$work/box.sup" "$seconds"
ffmpeg -hide_banner -loglevel error -nostdin -y \
    -f lavfi -i "testsrc2=size=320x180:rate=25" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" \
    -f lavfi -i "sine=frequency=660:sample_rate=48000" \
    -fix_sub_duration -i "$work/box.sup" \
    -map 0:v -map 1:a -map 2:a -map 3:s -t "$seconds" -fs 16M \
    -c:v "$codec" -bf 2 -g 12 -b:v 400k -maxrate 500k -bufsize 200k -threads 1 \
    -c:a mp2 -b:a 64k -c:s dvbsub -flags +bitexact -fflags +bitexact \
    -metadata service_name=sample -metadata service_provider=kvt \
    -metadata:s:a:0 language=eng -metadata:s:a:1 language=fra -metadata:s:s:0 language=eng \
    -f mpegts -muxrate 800k -pcr_period 40 -pat_period 0.2 -mpegts_service_id 1 "$out"
