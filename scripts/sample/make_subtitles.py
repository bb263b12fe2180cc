#!/usr/bin/env python3
"""Writes a small bitmap subtitle file (PGS): a white box every two seconds.

    make_subtitles.py FILE SECONDS

ffmpeg turns no text into bitmap subtitles, and a DVB subtitle track needs bitmaps.
"""
import struct
import sys

WIDTH, HEIGHT = 320, 180
BOX_W, BOX_H, BOX_X, BOX_Y = 160, 16, 80, 150


def segment(kind, ticks, body):
    return b"PG" + struct.pack(">IIBH", ticks, 0, kind, len(body)) + body


def composition(number, state, objects):
    head = struct.pack(">HHBHBBBB", WIDTH, HEIGHT, 0x10, number, state, 0, 0, len(objects))
    return head + b"".join(struct.pack(">HBBHH", 0, 0, 0, x, y) for x, y in objects)


def bitmap():
    line = bytes([0, 0x80 | 0x40 | BOX_W >> 8, BOX_W & 0xFF, 1]) + b"\0\0"  # one run of colour 1, end of line
    return line * BOX_H


def show(number, ticks):
    window = struct.pack(">BBHHHH", 1, 0, BOX_X, BOX_Y, BOX_W, BOX_H)
    palette = struct.pack(">BB", 0, 0) + bytes([1, 235, 128, 128, 255])
    data = bitmap()
    picture = struct.pack(">HBB", 0, 0, 0xC0) + (len(data) + 4).to_bytes(3, "big") + struct.pack(">HH", BOX_W, BOX_H)
    return (segment(0x16, ticks, composition(number, 0x80, [(BOX_X, BOX_Y)])) + segment(0x17, ticks, window)
            + segment(0x14, ticks, palette) + segment(0x15, ticks, picture + data) + segment(0x80, ticks, b""))


def hide(number, ticks):
    window = struct.pack(">BBHHHH", 1, 0, BOX_X, BOX_Y, BOX_W, BOX_H)
    return (segment(0x16, ticks, composition(number, 0x00, [])) + segment(0x17, ticks, window)
            + segment(0x80, ticks, b""))


def main():
    path, seconds = sys.argv[1], int(sys.argv[2])
    with open(path, "wb") as out:
        for number, second in enumerate(range(1, seconds, 2)):
            out.write(show(2 * number, second * 90000))
            out.write(hide(2 * number + 1, (second + 1) * 90000))


main()
