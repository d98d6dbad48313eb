"""Helpers for the real-pipeline tests: a short MPEG-TS made with stock
elements, the simulated board under a preloaded process, and the reading of
what the board sent out."""

import json
import os
import subprocess
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstMpegts", "1.0")
from gi.repository import GstMpegts, Gst  # noqa: E402

FRAME_NS = 40_000_000  # 25 frames a second
SCTE35_PID = 500

# Teletext Hamming 8/4 code words of the nibbles 0 to 15.
HAM84 = [0x15, 0x02, 0x49, 0x5E, 0x64, 0x73, 0x38, 0x2F, 0xD0, 0xC7, 0x8C, 0x9B, 0xA1, 0xB6, 0xFD, 0xEA]


def odd_parity(c):
    return c | (0x80 if bin(c).count("1") % 2 == 0 else 0)


def reverse_bits(b):
    return int(f"{b:08b}"[::-1], 2)


def teletext_packet(frame, row):
    """42 bytes of a teletext packet (magazine 1) in transmission byte order:
    its text names the frame and row so that a decoded line identifies itself."""
    text = f"QV frame {frame:05d} row {row:02d}".ljust(40)[:40]
    return bytes([HAM84[1 | (row & 1) << 3], HAM84[row >> 1]] + [odd_parity(ord(c)) for c in text])


def teletext_pes(frame, units):
    """PES data field: data_identifier, then one EBU data unit per (field, line, row)."""
    data = bytearray([0x10])
    for first_field, line, row in units:
        data += bytes([0x02, 0x2C, 0xC0 | (0x20 if first_field else 0) | line, reverse_bits(0x27)])
        data += bytes(reverse_bits(b) for b in teletext_packet(frame, row))
    return bytes(data)


def luma_of(frame):
    """The flat luma of input picture `frame`; survives MPEG-2 coding within +-3."""
    return 32 + (frame * 8) % 192


def frame_of_luma(luma, near):
    """The input frame with this luma that is nearest to `near`."""
    best = None
    for f in range(max(0, near - 24), near + 25):
        d = abs(luma_of(f) - luma)
        if d <= 3 and (best is None or abs(f - near) < abs(best - near)):
            best = f
    return best


def build_ts(path, width, height, frames, teletext_units, cues, tones=(1000,), picture=None):
    """Writes `frames` frames of 25i video (MPEG-2, interlaced coding), MP2 audio
    (a stream for each tone, in Hz), DVB teletext (one PES a frame from
    teletext_units(frame)) and SCTE-35 splice_insert cues [(event_id, splice
    running time ns)] on their own PID. Picture f is picture(f) (I420 bytes)
    or, by default, flat at luma_of(f)."""
    Gst.init(None)
    GstMpegts.initialize()
    desc = (
        f"mpegtsmux name=mux scte-35-pid={SCTE35_PID} alignment=7 ! filesink location={path} "
        f"appsrc name=vsrc format=time caps=video/x-raw,format=I420,width={width},height={height},"
        "framerate=25/1,pixel-aspect-ratio=1/1,interlace-mode=interleaved,field-order=top-field-first "
        "! mpeg2enc format=3 interlace-mode=1 bitrate=8000 constraints=false disable-encode-retries=true "
        "! mpegvideoparse ! mux. "
        + "".join(f"audiotestsrc num-buffers={frames * 2} samplesperbuffer=960 freq={tone} volume=0.5 "
                  "! audio/x-raw,rate=48000,channels=2 ! avenc_mp2 bitrate=192000 ! mpegaudioparse ! mux. "
                  for tone in tones)
        + "appsrc name=tsrc format=time caps=application/x-teletext ! mux.")
    pipe = Gst.parse_launch(desc)
    mux = pipe.get_by_name("mux")
    pending = sorted(cues, key=lambda c: c[1])

    def send_cues(pad, info):
        # A cue goes into the stream 1.5 s ahead of its splice, once the muxer
        # has the pictures of that moment (an earlier section would come
        # before the tables that let a demuxer place it).
        pts = info.get_buffer().pts
        while pending and pts + 1_500_000_000 >= pending[0][1]:
            ev_id, t = pending.pop(0)
            sit = GstMpegts.scte_splice_out_new(ev_id, t, 30 * 90000)
            sit.is_running_time = True
            GstMpegts.Section.from_scte_sit(sit, SCTE35_PID).send_event(mux)
        return Gst.PadProbeReturn.OK

    mux.get_static_pad("sink_65").add_probe(Gst.PadProbeType.BUFFER, send_cues)
    y = width * height
    if picture is None:
        def picture(f):
            return bytes([luma_of(f)]) * y + bytes([128]) * (y // 2)
    feed(pipe, path, frames, lambda f: [("vsrc", picture(f)), ("tsrc", teletext_pes(f, teletext_units(f)))])
    label_teletext(path)


def feed(pipe, path, frames, buffers_of):
    """Plays `pipe`, appsrcs into a file writer, to its end: buffers_of(f) gives
    frame f's (appsrc name, bytes) pairs, each stamped f frames from 0 and one
    frame long; then every appsrc fed ends and the file is written."""
    srcs = {}
    pipe.set_state(Gst.State.PLAYING)
    for f in range(frames):
        for name, data in buffers_of(f):
            src = srcs.setdefault(name, pipe.get_by_name(name))
            buf = Gst.Buffer.new_wrapped(data)
            buf.pts, buf.duration = f * FRAME_NS, FRAME_NS
            src.emit("push-buffer", buf)
    for src in srcs.values():
        src.emit("end-of-stream")
    end, _ = wait_for_end(pipe, 120)
    pipe.set_state(Gst.State.NULL)
    if end != "eos":
        raise RuntimeError(f"building {path} failed: {end}")


def wait_for_end(pipe, timeout=60, on_message=None):
    """Reads the bus until the end of the stream, an error, or `timeout` s with
    no message: ("eos" | "error: text" | "timeout", warnings); every other
    message goes to on_message."""
    end, warnings = None, []
    bus = pipe.get_bus()
    while end is None:
        msg = bus.timed_pop(timeout * Gst.SECOND)
        if msg is None:
            end = "timeout"
        elif msg.type == Gst.MessageType.EOS:
            end = "eos"
        elif msg.type == Gst.MessageType.ERROR:
            end = "error: %s" % msg.parse_error()[0].message
        elif msg.type == Gst.MessageType.WARNING:
            warnings.append(msg.parse_warning()[0].message)
        elif on_message:
            on_message(msg)
    return end, warnings


def pre_roll_ms(anc_payload):
    """Pre-roll of the splice_request_data in a SCTE-104 ANC packet: payload
    descriptor, then the multiple_operation_message (its time stamp of type 0
    has no bytes)."""
    msg = anc_payload[1:]
    assert msg[10] == 0 and msg[11] >= 1 and msg[12:14] == b"\x01\x01", msg.hex()
    data = msg[16:]  # splice_insert_type, splice_event_id, unique_program_id, pre_roll_time
    return int.from_bytes(data[7:9], "big")


def shown_frames(frames, per_picture):
    """Input frame numbers in the order the board sent them, read from each
    picture's luma; the black before the first picture is left out, and with
    two field records a picture, each pair counts once (a pair that disagrees
    is kept as two entries, so that it shows)."""
    seq, near = [], 0
    for f in frames:
        got = frame_of_luma(f["luma"], near) if f["luma"] >= 0 else None
        if got is None:
            if seq:
                seq.append(-1)
            continue
        seq.append(got)
        near = got + 1
    if per_picture == 2:
        pairs = []
        for i in range(0, len(seq) - 1, 2):
            pairs += [seq[i]] if seq[i] == seq[i + 1] else [seq[i], seq[i + 1]]
        seq = pairs
    return seq


def describe(order, n):
    wrong = [(i, f) for i, f in enumerate(order[:n]) if f != i]
    return f"{len(order)} pictures, first differences {wrong[:6]}, tail {order[n:n + 4]}"


SAMPLES_PER_FRAME = 1920
CLIP_LEVEL, CLIP_CLICK = 3000, 28000
CLIP_VIDEO_CAPS = ("video/x-raw,format=UYVY,width=720,height=576,framerate=25/1,pixel-aspect-ratio=16/15,"
                   "interlace-mode=interleaved")
CLIP_AUDIO_CAPS = "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved"


def build_clip(path, first, frames, video=True):
    """A clip for playlists, raw pictures and PCM in Matroska so that its sound
    lasts exactly as long as its pictures: pictures numbered from `first` in
    their luma; a square wave whose first sample is a click; both stamped
    from 0. Without `video`, the sound alone."""
    Gst.init(None)
    desc = f"matroskamux name=mux ! filesink location={path} "
    if video:
        desc += f"appsrc name=v format=time caps={CLIP_VIDEO_CAPS} ! mux.video_0 "
    pipe = Gst.parse_launch(desc + f"appsrc name=a format=time caps={CLIP_AUDIO_CAPS} ! mux.audio_0")

    def buffers(f):
        luma = luma_of(first + f)
        pcm = bytearray()
        for s in range(SAMPLES_PER_FRAME):
            n = f * SAMPLES_PER_FRAME + s
            value = CLIP_CLICK if n == 0 else (CLIP_LEVEL if (n // 24) % 2 == 0 else -CLIP_LEVEL)
            pcm += value.to_bytes(2, "little", signed=True) * 2
        return ([("v", bytes([128, luma, 128, luma]) * (720 * 576 // 2))] if video else []) + [("a", bytes(pcm))]

    feed(pipe, path, frames, buffers)


def have_elements(extra=()):
    """True when the stock elements the tests build and play streams with are installed."""
    Gst.init(None)
    need = list(extra) + ["mpeg2enc", "mpegtsmux", "tsdemux", "mpegvideoparse", "avdec_mpeg2video", "avenc_mp2",
            "mpegaudioparse", "avdec_mp2float", "appsrc", "audiotestsrc", "audioconvert", "videotestsrc"]
    missing = [n for n in need if Gst.ElementFactory.find(n) is None]
    if missing:
        print("missing stock elements: " + ", ".join(missing))
    return not missing


def crc32_mpeg(data):
    crc = 0xFFFFFFFF
    for b in data:
        crc ^= b << 24
        for _ in range(8):
            crc = (crc << 1) ^ 0x04C11DB7 if crc & 0x80000000 else crc << 1
            crc &= 0xFFFFFFFF
    return crc


def label_teletext(path):
    """The muxer marks the teletext PID with a subtitling descriptor, which a
    demuxer reads as DVB subtitles; a broadcast stream carries a teletext
    descriptor (initial page 100, magazine 1). Rewrites every PMT in place."""
    data = bytearray(open(path, "rb").read())
    pmt_pid = None
    for i in range(0, len(data) - 187, 188):
        pkt = data[i:i + 188]
        pid = (pkt[1] & 0x1F) << 8 | pkt[2]
        if not pkt[1] & 0x40:
            continue
        off = 5 + pkt[4] if (pkt[3] >> 4) & 2 else 4
        sec_at = off + 1 + pkt[off]
        sec = pkt[sec_at:]
        if pid == 0 and pmt_pid is None:
            pmt_pid = (sec[10] & 0x1F) << 8 | sec[11]
            continue
        if pid != pmt_pid or sec[0] != 0x02:
            continue
        length = (sec[1] & 0x0F) << 8 | sec[2]
        body = bytearray(sec[:3 + length - 4])
        at = 12 + ((body[10] & 0x0F) << 8 | body[11])
        while at < len(body):
            es_len = (body[at + 3] & 0x0F) << 8 | body[at + 4]
            d = at + 5
            if body[at] == 0x06 and es_len >= 10 and body[d] == 0x59 and body[d + 1] == 8:
                lang = bytes(body[d + 2:d + 5])
                body[d:d + 10] = bytes([0x56, 5]) + lang + bytes([0x01 << 3 | 1, 0x00])
                es_len -= 3
                body[at + 3:at + 5] = bytes([0xF0 | es_len >> 8, es_len & 0xFF])
            at += 5 + es_len
        new_len = len(body) + 4 - 3
        body[1:3] = bytes([(body[1] & 0xF0) | new_len >> 8, new_len & 0xFF])
        body += crc32_mpeg(body).to_bytes(4, "big")
        rest = 188 - sec_at
        data[i + sec_at:i + 188] = body + b"\xff" * (rest - len(body))
    open(path, "wb").write(data)


def run_player(script, build_dir, work, board, play_args, timeout=240):
    """Runs `script --play ...` in a child process with the simulated board
    (QVBOARDSIM text) preloaded: (what it reported on its RESULT line as
    JSON, its console); None for the first, with the console printed, when
    it failed."""
    env = sim_env(build_dir, work, board)
    run = subprocess.run([sys.executable, os.path.abspath(script), "--build-dir", build_dir, "--play", *play_args],
                         env=env, capture_output=True, text=True, timeout=timeout)
    lines = [ln for ln in run.stdout.splitlines() if ln.startswith("RESULT ")]
    if run.returncode != 0 or not lines:
        print(f"player failed ({run.returncode})\n{run.stdout[-3000:]}\n{run.stderr[-3000:]}")
        return None, run.stdout
    return json.loads(lines[-1][len("RESULT "):]), run.stdout


def glib_warnings(console):
    """GLib's own WARNING and CRITICAL lines: each means something was used
    wrongly (events out of order, a bad reference)."""
    return [ln for ln in console.splitlines() if "-WARNING **" in ln or "-CRITICAL **" in ln]


def sim_env(build_dir, workdir, boards):
    """Environment for a child process playing into the simulated boards
    (QVBOARDSIM text), with the plug-in from the build tree, a private
    registry, and ALSA's plughw devices answered by a null device."""
    home = os.path.join(workdir, "home")
    os.makedirs(home, exist_ok=True)
    with open(os.path.join(home, ".asoundrc"), "w") as f:
        f.write("pcm.!plughw {\n @args [ CARD DEV SUBDEV ]\n @args.CARD { type string default 0 }\n"
                " @args.DEV { type integer default 0 }\n @args.SUBDEV { type integer default -1 }\n"
                " type null\n}\n")
    env = dict(os.environ)
    env.update({
        "HOME": home,
        # One registry for every test run of this build: scanning the
        # installed plug-ins takes longer than a live example runs.
        "GST_REGISTRY": os.path.join(build_dir, "tests", "pipelines", "registry.bin"),
        "GST_PLUGIN_PATH": os.path.join(build_dir, "qv_graph", "qv_jt_renderer"),
        "LD_PRELOAD": os.path.join(build_dir, "tools", "board_sim", "libqvboardsim.so"),
        "QVBOARDSIM": boards,
    })
    env.pop("QVBOARDSIM_CONFIG", None)
    return env


CAPTION_TEXT = "QV CAPTIONS ON AIR 0123456789 "


def caption_pairs(frames):
    """CEA-608 pairs of frame f as (field 1 pair, field 2 pair): field 1 spells
    CAPTION_TEXT over and over, field 2 counts the frames in two letters."""
    out = []
    for f in range(frames):
        k = 2 * f % len(CAPTION_TEXT)
        f1 = (odd_parity(ord(CAPTION_TEXT[k])), odd_parity(ord(CAPTION_TEXT[k + 1])))
        f2 = (odd_parity(ord("a") + f // 26 % 26), odd_parity(ord("a") + f % 26))
        out.append((f1, f2))
    return out


def build_captioned_ts(path, width, height, frames):
    """Writes `frames` frames of 25p H.264 whose CEA-608 captions (caption_pairs,
    both fields) went in through cccombiner and out as A/53 user data, as a
    station's encoder makes them."""
    Gst.init(None)
    desc = (
        f"appsrc name=vsrc format=time caps=video/x-raw,format=I420,width={width},height={height},"
        "framerate=25/1,pixel-aspect-ratio=1/1 ! cc.sink "
        "appsrc name=csrc format=time caps=closedcaption/x-cea-708,format=cc_data,framerate=25/1 ! cc.caption "
        "cccombiner name=cc ! x264enc speed-preset=ultrafast key-int-max=25 ! h264parse "
        f"! mpegtsmux ! filesink location={path}")
    pipe = Gst.parse_launch(desc)
    y = width * height
    pairs = caption_pairs(frames)
    feed(pipe, path, frames, lambda f: [("vsrc", bytes([luma_of(f)]) * y + bytes([128]) * (y // 2)),
                                        ("csrc", bytes([0xFC, *pairs[f][0], 0xFD, *pairs[f][1]]))])


def captions_of_capture(records):
    """The valid CEA-608 pairs of each field, in the order the cdps (ANC
    DID 0x61 SDID 0x01) of the capture carry them; cdps that do not check
    out are counted as bad."""
    pairs = {0: [], 1: []}
    bad = 0
    for rec in records:
        for _, did, sdid, cdp in rec["anc"]:
            if (did, sdid) != (0x61, 0x01):
                continue
            if len(cdp) < 11 or cdp[0:2] != b"\x96\x69" or cdp[2] != len(cdp) or sum(cdp) % 256 \
                    or cdp[7] != 0x72 or cdp[-4] != 0x74:
                bad += 1
                continue
            count = cdp[8] & 0x1F
            for k in range(count):
                b0, b1, b2 = cdp[9 + 3 * k:12 + 3 * k]
                if b0 & 0x04 and (b0 & 3) < 2:
                    pairs[b0 & 1].append((b1, b2))
    return pairs, bad


def read_capture(build_dir, capture):
    """What the board sent, from the checker: a dict per record, and the
    embedded audio's {"longest_quiet": samples, "total": samples}."""
    tool = os.path.join(build_dir, "tests", "pipelines", "qvcap-check")
    out = subprocess.run([tool, capture], check=True, capture_output=True, text=True, timeout=120).stdout
    frames = []
    audio = {"longest_quiet": -1, "total": 0}
    for line in out.splitlines():
        parts = line.split()
        if parts and parts[0] == "audio":
            audio = {k: int(v) for k, v in (p.split("=") for p in parts[1:])}
        if not parts or parts[0] != "frame":
            continue
        rec = {"teletext": [], "anc": [], "audio": None}
        for p in parts[1:]:
            key, _, val = p.partition("=")
            if key == "ttx":  # field:line:text (text with '_' for blanks)
                fl, ln, txt = val.split(":", 2)
                rec["teletext"].append((int(fl), int(ln), txt.replace("_", " ")))
            elif key == "anc":  # line:did:sdid:payload hex
                ln, did, sdid, payload = val.split(":")
                rec["anc"].append((int(ln), int(did, 16), int(sdid, 16), bytes.fromhex(payload)))
            elif key in ("index", "seq", "luma", "zeros", "samples", "click"):
                rec[key] = int(val)
        frames.append(rec)
    return frames, audio
