#!/usr/bin/python3
"""Writes the main job's programme with stock GStreamer elements: a 576i
MPEG-2 transport stream of a few seconds with two MP2 sound tracks (1 kHz
and 2 kHz), DVB teletext (page 100, rows 1 and 2 on lines 7 and 320, naming
the frame) and one SCTE-35 splice_insert (event 1, splice at 2 s).

    make-programme.py OUT.ts [SECONDS]"""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "pipelines"))
import qvts  # noqa: E402


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__.splitlines()[-1].strip(), file=sys.stderr)
        return 2
    seconds = int(sys.argv[2]) if len(sys.argv) == 3 else 4
    if not qvts.have_elements():
        return 1
    qvts.build_ts(sys.argv[1], 720, 576, seconds * 25, lambda f: [(True, 7, 1), (False, 7, 2)],
                  [(1, 2_000_000_000)], tones=(1000, 2000))
    return 0


if __name__ == "__main__":
    sys.exit(main())
