#!/usr/bin/env python3
"""Differential test of `veltrin-cli decode` against ref_decode.py.

Usage: check_decode.py VELTRIN_CLI [--count N] [--seed S] [MIDI files or folders...]

Both decoders run on the songs given (with and without --sustain), on named edge
cases and on N random files, some with --sustain or --tempo: standard output, the
exit status and, on an error, standard error must be the same bytes.  The first ten
differences are printed; the files that differ are kept for replay.
"""

import os
import random
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import END, WorkFolder, hx, meta, run, smf, songs, vlq  # noqa: E402
import ref_decode  # noqa: E402


def gen_track(rng, first, o):
    data, sounding, last = bytearray(), [], None
    chans = rng.sample(range(16), rng.randint(1, 3))
    pitches = list(range(128)) if o["all_pitches"] else rng.sample(range(128), rng.randint(1, 6))
    r7 = lambda: rng.randint(0, 127)  # noqa: E731
    ch = lambda: rng.choice(chans)  # noqa: E731

    def put(delta, *body):
        nonlocal last
        channel = body[0] < 0xF0
        skip = channel and o["running"] and body[0] == last and rng.random() < 0.7
        data.extend(vlq(delta) + bytes(body[1:] if skip else body))
        last = body[0] if channel else None

    def note_on():
        c, n = ch(), rng.choice(pitches)
        sounding.append((c, n))
        return 0x90 | c, n, rng.randint(1, 127)

    def note_off():
        if sounding and rng.random() < 0.9:
            c, n = sounding.pop(rng.randrange(len(sounding)))
        else:
            c, n = ch(), rng.choice(pitches)  # stray end
        return (0x80 | c, n, r7()) if rng.random() < 0.5 else (0x90 | c, n, 0)

    def system():
        s = rng.choice([0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6] + list(range(0xF8, 0xFF)))
        return (s,) + tuple(r7() for _ in range({0xF1: 1, 0xF2: 2, 0xF3: 1}.get(s, 0)))

    def sysex():
        body = [r7() for _ in range(rng.randint(0, 140))] + [0xF7]
        return bytes([0xF0]) + vlq(len(body)) + bytes(body)

    kinds = [
        (44, note_on), (22, note_off),
        (6, lambda: (0xB0 | ch(), rng.choice([64, r7()]), r7())),
        (2, lambda: (0xC0 | ch(), r7())), (2, lambda: (0xD0 | ch(), r7())),
        (2, lambda: (0xA0 | ch(), rng.choice(pitches), r7())), (2, lambda: (0xE0 | ch(), r7(), r7())),
        (8, lambda: meta(0x51, rng.choice([rng.randint(100000, 2000000), rng.randint(1, 0xFFFFFF),
                                           500000, 333333]).to_bytes(3, "big"))),
        (2.25, lambda: meta(rng.randint(1, 7), [rng.randint(32, 126) for _ in range(rng.choice([0, 1, 3, 8, 20]))])),
        (0.9, lambda: meta(0x00, [r7(), r7()])),
        (1.35, lambda: meta(0x58, [rng.randint(1, 15), rng.choice([0, 1, 2, 3, 4, 5, 6, 7, 2, 3]),
                                   rng.choice([24, 36, 96]), 8])),
        (0.9, lambda: meta(0x59, [rng.choice([0, 3, 7, 249, 253, 255]), rng.randint(0, 1)])),
        (0.9, lambda: meta(0x54, [rng.randint(0, 23), rng.randint(0, 59), rng.randint(0, 59),
                                  rng.randint(0, 29), rng.randint(0, 99)])),
        (0.9, lambda: meta(rng.choice([0x20, 0x21, 0x7F, 0x08, 0x09, 0x4B]), [r7()] * rng.randint(0, 5))),
        (1.8, sysex),
        (3, system if o["system"] else note_on),
    ]
    if first and rng.random() < 0.6:
        put(0, *meta(0x51, rng.randint(200000, 1500000).to_bytes(3, "big")))
    for _ in range(rng.randint(5, o["events"])):
        r = rng.random()
        delta = 0 if r < 0.45 else rng.choice([1, 2, 5, 10, 24, 48, 96, 120, 240, 480, 1000, 3333])
        if r >= 0.97:
            huge = rng.choice([20000, 100000, 700000, 2000000, 0x0FFFFFFF])
            delta = huge if o["huge"] else rng.randint(1, 5000)
        put(delta, *rng.choices([f for _, f in kinds], [w for w, _ in kinds])[0]())
    for c, n in sounding:  # most notes end, a few keep sounding
        if rng.random() < 0.9:
            put(rng.choice([0, 10, 100]), 0x80 | c, n, 64)
    if o["bad_running"] and rng.random() < 0.3:  # running status after a meta event
        data.extend(vlq(0) + meta(0x01, b"x") + vlq(0) + bytes([60, 64]))
    if o["bad_delta"] and rng.random() < 0.3:  # a delta-time whose fourth byte goes on
        data.extend(hx("81 82 83 84 05 903C40"))
    return bytes(data + vlq(rng.choice([0, 0, 5])) + meta(0x2F, []))


def gen_file(rng):
    fmt = rng.choice([0, 1, 1, 1, 0, 2]) if rng.random() < 0.97 else rng.randint(3, 5)
    ntr = 1 if fmt == 0 and rng.random() < 0.85 else rng.randint(1, 5)
    division = rng.choice([24, 48, 96, 96, 120, 192, 384, 480, 480, 960, 1000, 7, 101, 32767])
    o = {"running": rng.random() < 0.6, "huge": rng.random() < 0.15, "system": rng.random() < 0.3,
         "bad_running": rng.random() < 0.1, "bad_delta": rng.random() < 0.05,
         "events": rng.choice([20, 60, 200, 600]), "all_pitches": rng.random() < 0.1}
    out = smf(fmt, [gen_track(rng, i == 0, o) for i in range(ntr)], division)
    return out[:rng.randint(0, len(out))] if rng.random() < 0.12 else out


T0 = "83 60 FF5103 07A120 00 FF5103 03D090"  # tempo changes after the start of the other tracks
T1 = "00 90 3C 40 81 40 80 3C 40 00 90 3E 40 87 40 80 3E 40"
T2 = "00 FF5103 0186A0 00 913C40 83 60 FF5103 1E8480 00 813C40"  # tempo in a later track
PEDAL = ("00 B0 40 7F 00 903C40 10 803C40 10 903C40 10 803C40 10 803C40 10 903E40 10 803E40 10 B0 40 00"
         " 10 903C40 10 B0 40 40 10 803C40 10 913C40 10 813C40 10 B1 40 7F 10 914040 10 814040")
METAS = ("00 FF00 02 1234 00 FF01 03 616263 00 FF02 00 00 FF03 02 5A5A 00 FF04 01 41 00 FF05 01 42"
         " 00 FF06 01 43 00 FF07 01 44 00 FF20 01 05 00 FF21 01 01 00 FF54 05 0102030405"
         " 00 FF58 04 03 03 18 08 00 FF58 04 06 09 0C 08 00 FF58 04 07 00 30 08 00 FF59 02 FD 01"
         " 00 FF59 02 04 00 00 FF7F 03 000041 00 FF09 02 4142 00 FF60 00")
# name: (format, track bodies before their end-of-track, decode options, division)
EDGES = {
    "format0_no_tracks": (0, [], [], 96),
    "format1_no_tracks": (1, [], [], 96),
    "overlap": (0, ["00 903C40 10 903C50 10 803C40 10 903C00 10 803C40"], [], 96),
    "stray_off": (0, ["00 803C40 10 903E00 10 903C40 10 803C40 10 803C40"], [], 96),
    "across_tempi": (0, ["00 903C64 07 FF5103 0F4240 05 FF5103 051615 0B FF5103 0A2C2B 11 803C40"], [], 7),
    "format1_late_tempo": (1, [T0, T1], [], 96),
    "format1_tempo_later_track": (1, [T0, T1, T2], [], 96),
    "format0_two_tracks": (0, [T0, T2, T1], [], 96),
    "running_after_sysex": (0, ["00 903C40 00 F0 03 01 02 F7 10 3C 00"], [], 96),
    "running_after_f1": (0, ["00 903C40 00 F1 05 10 3C 00"], [], 96),
    "running_ok": (0, ["00 903C40 10 3E40 10 3C00 10 3E 00 00 B0 07 64 00 0A 20"], [], 96),
    "system_bytes": (0, ["00 F7 00 F6 00 F8 00 FE 00 F4 00 F5 05 903C40 05 803C40 00 F1 7F 00 F2 7F7F 00 F3 05"],
                     [], 96),
    "all_metas": (0, [METAS], [], 96),
    "text_latin1": (0, ["00 FF01 04 E9E8FC41 00 FF03 02 C3A9"], [], 96),
    # song end past 99,999 ms, starts past 10,000,000 ms, ticks past 999,999
    "huge_times": (0, ["00 903C40 8F FF FF 7F 803C40 00 903E40 83 60 803E40"], [], 1),
    "long_song": (0, ["00 903C40 86 8D 20 803C40"], [], 96),
    "bad_delta": (0, ["00 903C40 81 82 83 84 05 803C40"], [], 96),
    "pedal": (0, [PEDAL], ["--sustain"], 96),
    "pedal_off": (0, [PEDAL], [], 96),
    "pedal_two_tracks": (1, [PEDAL, "00 923C40 10 B2 40 7F 10 823C40"], ["--sustain"], 96),
    "forced_tempo": (0, ["00 FF5103 0F4240 00 903C40 60 803C40"], ["--tempo", "97"], 96),
}


def edge_files():
    """(name, bytes, options) of the named edge cases."""
    files = [(name, smf(fmt, [hx(t) + END for t in tracks], division), opts)
             for name, (fmt, tracks, opts, division) in EDGES.items()]
    c = hx("00 903C40 60 803C40") + END
    many = hx("00 903C40") + b"".join(hx("01 FF5103") + (300000 + 97 * i).to_bytes(3, "big")
                                      for i in range(3000))
    # chunk lengths are not used: a track runs to its end-of-track event and the next "MTrk" follows
    t1, t2 = hx("00 903C40 10 803C40") + END, hx("00 913E40 10 813E40") + END
    files += [("no_header", b"RIFF" + bytes(20), []),
              ("header_says_two", smf(1, [c])[:12] + b"\x00\x02" + smf(1, [c])[14:], []),
              ("many_tempi", smf(0, [many + hx("01 803C40") + END]), []),
              ("chunk_longer", smf(1, [t1 + b"\0\0\0", t2], lengths=[len(t1) + 3, len(t2)]), []),
              ("chunk_shorter", smf(1, [t1, t2], lengths=[len(t1) - 4, len(t2)]), []),
              ("header_len8", smf(0, [t1], header_len=8, header_extra=b"\0\0"), []),
              ("chunk_cuts_event", smf(0, [t1], lengths=[6]), [])]
    small = smf(1, [hx("00 FF5103 07A120 00 FF01 02 6869 00 F0 02 01F7") + END,
                    hx("00 903C40 81 00 803C40 00 C0 05 00 E0 01 02") + END])
    return files + [("trunc%03d" % n, small[:n], []) for n in range(len(small))]


def compare(cli, path, opts):
    with open(path, "rb") as fh:
        bpm = int(opts[1]) if opts[:1] == ["--tempo"] else 0
        want = ref_decode.decode(fh.read(), path, bpm, "--sustain" in opts)
    got = run([cli, "decode"] + opts + [path])
    problems = []
    if want[1] != got[1]:
        w, g = want[1].split(b"\n"), got[1].split(b"\n")
        i = next(i for i in range(max(len(w), len(g))) if w[i:i + 1] != g[i:i + 1])
        problems.append("line %d: expected %r, got %r" % (i + 1, w[i:i + 1], g[i:i + 1]))
    if want[0] != got[0]:
        problems.append("exit status: expected %d, got %d" % (want[0], got[0]))
    if want[0] != 0 and want[2] != got[2]:
        problems.append("message: expected %r, got %r" % (want[2], got[2]))
    return problems, want[0]


def main(argv):
    if not argv:
        sys.stderr.write(__doc__)
        return 2
    cli, count, seed, args = argv[0], 300, 20261122, argv[1:]
    for flag in ("--count", "--seed"):
        if flag in args:
            i = args.index(flag)
            count, seed = (int(args[i + 1]), seed) if flag == "--count" else (count, int(args[i + 1]))
            del args[i:i + 2]
    real = songs(args)
    work = WorkFolder("veltrin-refdec-")
    rng = random.Random(seed)
    cases = [(f, opts) for opts in ([], ["--sustain"]) for f in real]
    cases += [(work.write(name + ".mid", data), opts) for name, data, opts in edge_files()]
    for k in range(count):
        r = rng.random()
        opts = ["--sustain"] if r < 0.2 else [] if r >= 0.28 else \
            ["--tempo", str(rng.choice([1, 60, 97, 120, 333, 32767]))]
        cases.append((work.write("gen%04d.mid" % k, gen_file(rng)), opts))
    errors, failed = 0, set()
    for path, opts in cases:
        problems, rc = compare(cli, path, opts)
        errors += rc != 0
        if problems:
            failed.add(path)
            if len(failed) <= 10:
                print("DIFF %s %s\n    %s" % (path, " ".join(opts), "\n    ".join(problems)))
    print("%d cases (%d real files, %d generated, %d ending in a decode error), %d differ; files in %s"
          % (len(cases), len(real), count, errors, len(failed), work.path))
    work.close(failed)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
