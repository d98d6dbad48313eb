#!/usr/bin/python3
"""Writes the main job's programme with stock GStreamer elements: a 576i
MPEG-2 transport stream of a few seconds with two MP2 sound tracks (1 kHz
and 2 kHz), DVB teletext (page 100, rows 1 and 2 on lines 7 and 320, naming
the frame) and one SCTE-35 splice_insert (event 1, splice at 2 s); the
pictures are colour bars with a white box moving across them.

    make-programme.py OUT.ts [SECONDS]"""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "pipelines"))
import qvts  # noqa: E402


# 75 % colour bars (Y, Cb, Cr): white, yellow, cyan, green, magenta, red, blue, black.
BARS = ((180, 128, 128), (162, 44, 142), (131, 156, 44), (112, 72, 58),
        (84, 184, 198), (65, 100, 212), (35, 212, 114), (16, 128, 128))


def bars_with_box(width, height):
    """I420 pictures of colour bars with a white box that moves one step a
    frame, so that a frame taken from the board shows which one it is."""
    def row(values, w):
        return b"".join(bytes([v]) * (w // len(values)) for v in values)
    y_row = row([b[0] for b in BARS], width)
    u_plane = row([b[1] for b in BARS], width // 2) * (height // 2)
    v_plane = row([b[2] for b in BARS], width // 2) * (height // 2)
    box = 64

    def picture(f):
        y, u, v = bytearray(y_row * height), bytearray(u_plane), bytearray(v_plane)
        x0 = (f * 8) % (width - box)
        for line in range(height // 2 - box // 2, height // 2 + box // 2):
            y[line * width + x0:line * width + x0 + box] = b"\xeb" * box
            if line % 2 == 0:
                at = line // 2 * (width // 2) + x0 // 2
                u[at:at + box // 2] = v[at:at + box // 2] = b"\x80" * (box // 2)
        return bytes(y) + bytes(u) + bytes(v)
    return picture


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__.splitlines()[-1].strip(), file=sys.stderr)
        return 2
    seconds = int(sys.argv[2]) if len(sys.argv) == 3 else 4
    if not qvts.have_elements():
        return 1
    qvts.build_ts(sys.argv[1], 720, 576, seconds * 25, lambda f: [(True, 7, 1), (False, 7, 2)],
                  [(1, 2_000_000_000)], tones=(1000, 2000), picture=bars_with_box(720, 576))
    return 0


if __name__ == "__main__":
    sys.exit(main())
