#!/usr/bin/env python3
"""Differential test of `veltrin-cli decode` against ref_decode.py.

Usage: check_decode.py VELTRIN_CLI [--count N] [--seed S] [--keep DIR] [MIDI files or folders...]

Runs both decoders on every given .mid file (folders are searched for *.mid)
and on N generated files (random format 0/1/2 songs with tempo changes in the
first and later tracks, running status, overlapping notes of one pitch,
note-on velocity 0, stray note-offs, system exclusive, system common and
real-time bytes, meta events of every kind, huge deltas, truncated files,
bad delta-times, running status after meta events), on named edge cases
(every byte length of a small file, thousands of tempo changes, the sustain
pedal, overflowing fields...) and on files whose chunk lengths disagree with
their events, with and without --sustain and --tempo.  Standard output and
the exit status must be identical; on an error the message on standard error
must be the same bytes.  Exits 1 when any case differs; the
first ten are printed, and the files that differ are kept for replay.
"""

import os
import random
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
REF = os.path.join(HERE, "ref_decode.py")


def vlq(n):
    out = [n & 0x7F]
    n >>= 7
    while n:
        out.append(0x80 | (n & 0x7F))
        n >>= 7
    return bytes(reversed(out))


def meta(mtype, body):
    return bytes([0xFF, mtype]) + vlq(len(body)) + bytes(body)


class TrackWriter:
    """Builds one track's event bytes, with optional running status."""

    def __init__(self, rng, running):
        self.rng = rng
        self.running = running
        self.data = bytearray()
        self.last = None  # last status written, for running status

    def event(self, delta, body, channel_msg):
        self.data += vlq(delta)
        if channel_msg and self.running and self.last == body[0] and self.rng.random() < 0.7:
            self.data += body[1:]
        else:
            self.data += body
        self.last = body[0] if body[0] >= 0x80 else self.last
        if not channel_msg:
            self.last = None


def random_text(rng):
    n = rng.choice([0, 1, 3, 8, 20])
    return bytes(rng.randint(32, 126) for _ in range(n))


def gen_track(rng, is_first, fmt, opts):
    w = TrackWriter(rng, opts["running"])
    tick = 0
    sounding = []  # (channel, note) pairs currently on, may repeat
    n_events = rng.randint(5, opts["events"])
    channels = rng.sample(range(16), rng.randint(1, 3))
    pitches = rng.sample(range(128), rng.randint(1, 6))
    if opts.get("big_pitch_set"):
        pitches = list(range(128))
    if is_first and rng.random() < 0.6:
        w.event(0, meta(0x51, rng.randint(200000, 1500000).to_bytes(3, "big")), False)
    for _ in range(n_events):
        r = rng.random()
        if r < 0.45:
            delta = 0
        elif r < 0.97:
            delta = rng.choice([1, 2, 5, 10, 24, 48, 96, 120, 240, 480, 1000, 3333])
        else:
            delta = rng.choice([20000, 100000, 700000, 2000000, 0x0FFFFFFF])
            if not opts["huge"]:
                delta = rng.randint(1, 5000)
        tick += delta
        k = rng.random()
        if k < 0.40:
            ch = rng.choice(channels)
            note = rng.choice(pitches)
            w.event(delta, bytes([0x90 | ch, note, rng.randint(1, 127)]), True)
            sounding.append((ch, note))
        elif k < 0.62:
            if sounding and rng.random() < 0.9:
                ch, note = sounding.pop(rng.randrange(len(sounding)))
            else:
                ch, note = rng.choice(channels), rng.choice(pitches)  # stray end
            if rng.random() < 0.5:
                w.event(delta, bytes([0x80 | ch, note, rng.randint(0, 127)]), True)
            else:
                w.event(delta, bytes([0x90 | ch, note, 0]), True)
        elif k < 0.68:
            ch = rng.choice(channels)
            ctl = 64 if rng.random() < 0.5 else rng.randint(0, 127)
            w.event(delta, bytes([0xB0 | ch, ctl, rng.randint(0, 127)]), True)
        elif k < 0.70:
            w.event(delta, bytes([0xC0 | rng.choice(channels), rng.randint(0, 127)]), True)
        elif k < 0.72:
            w.event(delta, bytes([0xD0 | rng.choice(channels), rng.randint(0, 127)]), True)
        elif k < 0.74:
            w.event(delta, bytes([0xA0 | rng.choice(channels), rng.choice(pitches), rng.randint(0, 127)]), True)
        elif k < 0.76:
            w.event(delta, bytes([0xE0 | rng.choice(channels), rng.randint(0, 127), rng.randint(0, 127)]), True)
        elif k < 0.84:
            # tempo change, in any track (format 1 ignores those of later tracks)
            t = rng.choice([rng.randint(100000, 2000000), rng.randint(1, 0xFFFFFF), 500000, 333333])
            w.event(delta, meta(0x51, t.to_bytes(3, "big")), False)
        elif k < 0.93:
            m = rng.random()
            if m < 0.25:
                w.event(delta, meta(rng.randint(1, 7), random_text(rng)), False)
            elif m < 0.35:
                w.event(delta, meta(0x00, [rng.randint(0, 255), rng.randint(0, 255)]), False)
            elif m < 0.50:
                exp = rng.choice([0, 1, 2, 3, 4, 5, 6, 7, 2, 3])
                w.event(delta, meta(0x58, [rng.randint(1, 15), exp, rng.choice([24, 36, 96]), 8]), False)
            elif m < 0.60:
                w.event(delta, meta(0x59, [rng.randint(0, 7) if rng.random() < 0.5 else 256 - rng.randint(1, 7),
                                           rng.randint(0, 1)]), False)
            elif m < 0.70:
                w.event(delta, meta(0x54, [rng.randint(0, 23), rng.randint(0, 59), rng.randint(0, 59),
                                           rng.randint(0, 29), rng.randint(0, 99)]), False)
            elif m < 0.80:
                w.event(delta, meta(rng.choice([0x20, 0x21, 0x7F, 0x08, 0x09, 0x4B]),
                                    [rng.randint(0, 127) for _ in range(rng.randint(0, 5))]), False)
            else:
                body = [rng.randint(0, 127) for _ in range(rng.randint(0, 140))] + [0xF7]
                w.event(delta, bytes([0xF0]) + vlq(len(body)) + bytes(body), False)
        elif k < 0.96 and opts["system"]:
            s = rng.choice([0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE])
            nd = {0xF1: 1, 0xF2: 2, 0xF3: 1}.get(s, 0)
            w.event(delta, bytes([s] + [rng.randint(0, 127) for _ in range(nd)]), False)
        else:
            ch = rng.choice(channels)
            note = rng.choice(pitches)
            w.event(delta, bytes([0x90 | ch, note, rng.randint(1, 127)]), True)
            sounding.append((ch, note))
    # close most notes, leave a few sounding
    for ch, note in sounding:
        if rng.random() < 0.9:
            w.event(rng.choice([0, 10, 100]), bytes([0x80 | ch, note, 64]), True)
    if opts["bad_running"] and rng.random() < 0.3:
        # running status after a meta event
        w.data += vlq(0) + meta(0x01, b"x") + vlq(0) + bytes([60, 64])
    if opts["bad_delta"] and rng.random() < 0.3:
        # a delta-time whose fourth byte still has its top bit set
        w.data += bytes([0x81, 0x82, 0x83, 0x84, 0x05, 0x90, 60, 64])
    w.data += vlq(rng.choice([0, 0, 5])) + meta(0x2F, [])
    return bytes(w.data)


def gen_file(rng):
    fmt = rng.choice([0, 1, 1, 1, 0, 2]) if rng.random() < 0.97 else rng.randint(3, 5)
    ntr = 1 if fmt == 0 and rng.random() < 0.85 else rng.randint(1, 5)
    division = rng.choice([24, 48, 96, 96, 120, 192, 384, 480, 480, 960, 1000, 7, 101, 32767])
    opts = {
        "running": rng.random() < 0.6,
        "huge": rng.random() < 0.15,
        "system": rng.random() < 0.3,
        "bad_running": rng.random() < 0.1,
        "bad_delta": rng.random() < 0.05,
        "events": rng.choice([20, 60, 200, 600]),
        "big_pitch_set": rng.random() < 0.1,
    }
    out = bytearray(b"MThd" + (6).to_bytes(4, "big") + fmt.to_bytes(2, "big")
                    + ntr.to_bytes(2, "big") + division.to_bytes(2, "big"))
    for i in range(ntr):
        body = gen_track(rng, i == 0, fmt, opts)
        out += b"MTrk" + len(body).to_bytes(4, "big") + body
    if rng.random() < 0.12:
        out = out[:rng.randint(0, len(out))]  # truncated file
    return bytes(out)


def smf(fmt, tracks, division=96, header_len=6, header_extra=b"", lengths=None):
    """A file from raw track bodies; lengths overrides the chunk lengths."""
    out = bytearray(b"MThd" + header_len.to_bytes(4, "big") + fmt.to_bytes(2, "big")
                    + len(tracks).to_bytes(2, "big") + division.to_bytes(2, "big") + header_extra)
    for i, body in enumerate(tracks):
        n = len(body) if lengths is None else lengths[i]
        out += b"MTrk" + n.to_bytes(4, "big") + body
    return bytes(out)


def hx(text):
    return bytes.fromhex(text.replace(" ", ""))


END = hx("00 FF2F00")


def edge_files(rng):
    """Named edge cases: (name, bytes, extra options)."""
    files = []
    note_c = hx("00 903C40 60 803C40")
    files.append(("no_header", b"RIFF" + bytes(20), []))
    files.append(("header_only", smf(1, []), []))
    files.append(("header_says_two", smf(1, [note_c + END])[:12] + b"\x00\x02" + smf(1, [note_c + END])[14:], []))
    files.append(("format1_no_tracks", smf(1, []), []))
    files.append(("format0_no_tracks", smf(0, []), []))
    # note-on for a sounding note only raises its count; the last note-off ends it
    files.append(("overlap", smf(0, [hx("00 903C40 10 903C50 10 803C40 10 903C00 10 803C40") + END]), []))
    # note-off and note-on velocity 0 for notes that are not sounding
    files.append(("stray_off", smf(0, [hx("00 803C40 10 903E00 10 903C40 10 803C40 10 803C40") + END]), []))
    # a note across several tempo changes, tempo changes mid-note on an odd division
    files.append(("across_tempi", smf(0, [hx("00 903C64 07 FF5103 0F4240 05 FF5103 051615 0B FF5103 0A2C2B 11 803C40")
                                          + END], division=7), []))
    # format 1: tempo in the first track not at tick 0; a later track starts before it
    t0 = hx("83 60 FF5103 07A120 00 FF5103 03D090") + END
    t1 = hx("00 90 3C 40 81 40 80 3C 40 00 90 3E 40 87 40 80 3E 40") + END
    files.append(("format1_late_tempo", smf(1, [t0, t1]), []))
    # format 1: tempo events in a later track make no line and change nothing
    t2 = hx("00 FF5103 0186A0 00 913C40 83 60 FF5103 1E8480 00 813C40") + END
    files.append(("format1_tempo_later_track", smf(1, [t0, t1, t2]), []))
    # format 0 with two tracks: the second track's tempo events go into the map
    files.append(("format0_two_tracks", smf(0, [t0, t2, t1]), []))
    # running status after a system exclusive event and after a system common one
    files.append(("running_after_sysex", smf(0, [hx("00 903C40 00 F0 03 01 02 F7 10 3C 00") + END]), []))
    files.append(("running_after_f1", smf(0, [hx("00 903C40 00 F1 05 10 3C 00") + END]), []))
    files.append(("running_ok", smf(0, [hx("00 903C40 10 3E40 10 3C00 10 3E 00 00 B0 07 64 00 0A 20") + END]), []))
    # a lone F7 status byte and the other single system bytes
    files.append(("f7_alone", smf(0, [hx("00 F7 00 F6 00 F8 00 FE 00 F4 00 F5 05 903C40 05 803C40") + END]), []))
    # system common with data
    files.append(("system_common", smf(0, [hx("00 F1 7F 00 F2 7F 7F 00 F3 05") + END]), []))
    # every meta event of the table, denominators out of range keep the previous value
    metas = hx("00 FF00 02 1234 00 FF01 03 616263 00 FF02 00 00 FF03 02 5A5A 00 FF04 01 41 00 FF05 01 42"
               " 00 FF06 01 43 00 FF07 01 44 00 FF20 01 05 00 FF21 01 01 00 FF54 05 0102030405"
               " 00 FF58 04 03 03 18 08 00 FF58 04 06 09 0C 08 00 FF58 04 07 00 30 08 00 FF59 02 FD 01"
               " 00 FF59 02 04 00 00 FF7F 03 000041 00 FF09 02 4142 00 FF60 00")
    files.append(("all_metas", smf(0, [metas + END]), []))
    # text bytes outside ASCII
    files.append(("text_latin1", smf(0, [hx("00 FF01 04 E9E8FC41 00 FF03 02 C3A9") + END]), []))
    # times that overflow their fields: song end past 99,999 ms, starts past 10,000,000 ms, ticks past 999,999
    big = hx("00 903C40 8F FF FF 7F 803C40 00 903E40 83 60 803E40")
    files.append(("huge_times", smf(0, [big + END], division=1), []))
    files.append(("long_song", smf(0, [hx("00 903C40 86 8D 20 803C40") + END], division=96), []))
    # thousands of tempo changes (the map has no size limit)
    many = bytearray(hx("00 903C40"))
    for i in range(3000):
        many += hx("01 FF5103") + (300000 + 97 * i).to_bytes(3, "big")
    many += hx("01 803C40")
    files.append(("many_tempi", smf(0, [bytes(many) + END]), []))
    # a delta-time of five bytes; a meta length of five bytes
    files.append(("bad_delta", smf(0, [hx("00 903C40 81 82 83 84 05 803C40") + END]), []))
    # a sustain pedal holding notes, re-struck notes, extra note-offs while held
    ped = hx("00 B0 40 7F 00 903C40 10 803C40 10 903C40 10 803C40 10 803C40 10 903E40 10 803E40"
             " 10 B0 40 00 10 903C40 10 B0 40 40 10 803C40 10 913C40 10 813C40 10 B1 40 7F 10 914040 10 814040")
    files.append(("pedal", smf(0, [ped + END]), ["--sustain"]))
    files.append(("pedal_off", smf(0, [ped + END]), []))
    files.append(("pedal_two_tracks", smf(1, [ped + END, hx("00 923C40 10 B2 40 7F 10 823C40") + END]), ["--sustain"]))
    files.append(("forced_tempo", smf(0, [hx("00 FF5103 0F4240 00 903C40 60 803C40") + END]), ["--tempo", "97"]))
    # truncation at every byte of a small file
    small = smf(1, [hx("00 FF5103 07A120 00 FF01 02 6869 00 F0 02 01F7") + END,
                    hx("00 903C40 81 00 803C40 00 C0 05 00 E0 01 02") + END])
    for n in range(len(small)):
        files.append(("trunc%03d" % n, small[:n], []))
    return files


# Files whose chunk lengths disagree with their events.  The decoder reads the
# events one after the other from the start of the first track: a track ends at
# its end-of-track event and the next "MTrk" is expected right there; the
# lengths in the chunk headers are read and not used.
def chunk_files():
    t1 = hx("00 903C40 10 803C40") + END
    t2 = hx("00 913E40 10 813E40") + END
    return [
        ("chunk_longer", smf(1, [t1 + b"\0\0\0", t2], lengths=[len(t1) + 3, len(t2)]), []),
        ("chunk_shorter", smf(1, [t1, t2], lengths=[len(t1) - 4, len(t2)]), []),
        ("header_len8", smf(0, [t1], header_len=8, header_extra=b"\0\0"), []),
        # the length ends inside the second event; the file goes on
        ("chunk_cuts_event", smf(0, [t1], lengths=[6]), []),
    ]


def run(cmd):
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
    return p.returncode, p.stdout, p.stderr


def compare(cli, path, extra):
    rc1, out1, err1 = run([sys.executable, REF] + extra + [path])
    rc2, out2, err2 = run([cli, "decode"] + extra + [path])
    problems = []
    if out1 != out2:
        l1 = out1.split(b"\n")
        l2 = out2.split(b"\n")
        for i in range(max(len(l1), len(l2))):
            a = l1[i] if i < len(l1) else b"<none>"
            b = l2[i] if i < len(l2) else b"<none>"
            if a != b:
                problems.append("line %d: expected %r, got %r" % (i + 1, a, b))
                break
    if rc1 != rc2:
        problems.append("exit status: expected %d, got %d" % (rc1, rc2))
    if rc1 != 0 and err1 != err2:
        problems.append("message: expected %r, got %r" % (err1, err2))
    return problems, rc1


def main(argv):
    if not argv:
        sys.stderr.write(__doc__)
        return 2
    cli = argv[0]
    count, seed, keep = 300, 20261122, None
    files = []
    i = 1
    while i < len(argv):
        if argv[i] == "--count":
            count = int(argv[i + 1]); i += 1
        elif argv[i] == "--seed":
            seed = int(argv[i + 1]); i += 1
        elif argv[i] == "--keep":
            keep = argv[i + 1]; i += 1
        elif os.path.isdir(argv[i]):
            files += sorted(os.path.join(argv[i], f) for f in os.listdir(argv[i]) if f.endswith(".mid"))
        else:
            files.append(argv[i])
        i += 1
    work = keep or tempfile.mkdtemp(prefix="veltrin-refdec-")
    os.makedirs(work, exist_ok=True)
    rng = random.Random(seed)
    chunk_names = {name for name, _, _ in chunk_files()}
    cases = [(f, []) for f in files]
    cases += [(f, ["--sustain"]) for f in files]
    for name, data, extra in edge_files(rng) + chunk_files():
        p = os.path.join(work, name + ".mid")
        with open(p, "wb") as fh:
            fh.write(data)
        cases.append((p, extra))
    for k in range(count):
        p = os.path.join(work, "gen%04d.mid" % k)
        with open(p, "wb") as fh:
            fh.write(gen_file(rng))
        extra = []
        r = rng.random()
        if r < 0.2:
            extra = ["--sustain"]
        elif r < 0.28:
            extra = ["--tempo", str(rng.choice([1, 60, 97, 120, 333, 32767]))]
        cases.append((p, extra))
    failures = 0
    errors_seen = 0
    failed_paths = set()
    for path, extra in cases:
        problems, rc = compare(cli, path, extra)
        errors_seen += rc != 0
        if problems:
            failures += 1
            failed_paths.add(path)
            if failures <= 10:
                print("DIFF %s %s" % (path, " ".join(extra)))
                if os.path.splitext(os.path.basename(path))[0] in chunk_names:
                    print("    (chunk lengths that disagree with the events: the events are read one after"
                          " another up to the end-of-track event, and the next \"MTrk\" is expected right"
                          " after it; the lengths are not used)")
                for p in problems:
                    print("    " + p)
    print("%d cases (%d real files, %d generated, %d ending in a decode error), %d differ; files in %s"
          % (len(cases), len(files), count, errors_seen, failures, work))
    if not keep:
        if not failures:
            shutil.rmtree(work, ignore_errors=True)
        else:  # keep only the files that differ, for replay
            for path, _ in cases:
                if path.startswith(work) and path not in failed_paths and os.path.exists(path):
                    os.remove(path)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
