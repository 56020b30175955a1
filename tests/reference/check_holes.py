#!/usr/bin/env python3
"""Differential test of the holes of `veltrin-cli convert` against ref_holes.py.

Usage: check_holes.py VELTRIN_CLI [MIDI files or folders...]

For each song, machine and scale (and a scale file, changed settings and marks on
some songs) the program of `veltrin-cli convert SONG --defaults ...` must have the
fixed lines of the reference, CR LF line ends, moves in blocks of the right shape,
numbers in their shortest 15-digit text, the reference's multiset of holes (travel
order ignored) and the report lines that do not depend on the travel order.  The model
is the plan without the roll cleanup, of every MIDI channel, with no transposition: every
conversion runs with --set RollCleanup=0 --set Channels=1-16 --set Transpose=0.
"""

import collections
import decimal
import os
import random
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import WorkFolder, run, smf, songs, vlq  # noqa: E402
import ref_holes  # noqa: E402

KOLBY, AF = "Kolby 27-29", "Alder Fenn 20"
CONFIGS = [("laser", KOLBY, {}), ("laser", AF, {}), ("punch", KOLBY, {}), ("punch", AF, {})]
EXTRA_CONFIGS = [
    ("laser", KOLBY, {"Lgponts": "0"}),  # no bridges: one cut per note
    ("laser", KOLBY, {"Vitcarton": "80"}),  # pieces of 187.5 ms: ends rounded half away from zero
    # piece times that are not whole milliseconds, M4 power, no header, wider bass holes
    ("laser", AF, {"Lgponts": "2.3", "Dist_ponts": "7.7", "Laser_mode": "M4", "Gen_entete": "0",
                   "BassesAF": "5.5"}),
    ("punch", KOLBY, {"Lgponts": "0", "L_poincon": "2.2"}),
    ("punch", AF, {"Lgponts": "1.1", "L_poincon": "4.7", "VitesseF_poin": "7000.5"}),
]
# (machine, scale, settings, (start mark, end mark or None))
MARK_CONFIGS = [("punch", KOLBY, {}, (5000.7, 20000.0)), ("laser", AF, {}, (0.0, 12345.0)),
                ("laser", KOLBY, {}, (7000.0, None)), ("punch", AF, {"Gen_entete": "0"}, (3001.0, 9999.5))]
PITCHES = sorted(set(ref_holes.KOLBY) | set(ref_holes.ALDER_FENN))

# Header comments, a comment after each value, the track count after its dropped
# first character, a note written 60.6 (read as 61), a note twice (its first track wins),
# a speed and distances that give fractional times and positions.
SCALE_NAME = "Test organ"
SCALE_TEXT = "\r\n".join([
    "// a scale for the hole check", "// second header line", "55.5 // roll speed mm/s",
    "120 // roll width", "7.25 // first track axis", "3.9 // track pitch", "0 // not folded",
    "x12 // tracks", "48", "50", "52", "53", "55", "57", "59", "60.6 // written with a decimal",
    "62", "64", "55", "67 // last"]) + "\r\n"


def song_file(events, division=1000, tempo=1000000):
    """Format 0 song from (tick, status, data1, data2) events; 1 tick = 1 ms by default."""
    body, last = bytearray(b"\x00\xFF\x51\x03" + tempo.to_bytes(3, "big")), 0
    for tick, st, a, b in sorted(events, key=lambda e: (e[0], e[1] & 0xF0 == 0x90)):
        body += vlq(tick - last) + bytes([st, a, b])
        last = tick
    return smf(0, [bytes(body) + b"\x00\xFF\x2F\x00"], division)


def edge_song():
    """Every track of both scales with the lengths where the cutting rules change."""
    events = []
    for n, pitch in enumerate(PITCHES + [20, 100, 127]):
        start = 7 * n
        for d in [1, 3, 49, 50, 51, 74, 75, 76, 249, 250, 251, 325, 326, 327, 549, 550, 551, 600,
                  601, 750, 1000, 1234, 2500, 10001]:
            events += [(start, 0x90, pitch, 64), (start + d, 0x80, pitch, 64)]
            start += d + 30
    return song_file(events)


def random_song(rng):
    events, busy = [], {}
    for _ in range(rng.randint(20, 200)):
        p, ch = rng.choice(PITCHES + [30, 90]), rng.randint(0, 3)
        start = max(busy.get(p, 0), rng.randint(0, 60000))
        d = rng.choice([rng.randint(1, 100), rng.randint(100, 2000), rng.randint(2000, 9000)])
        events += [(start, 0x90 | ch, p, rng.randint(1, 127)), (start + d, 0x80 | ch, p, 0)]
        busy[p] = start + d + 1
    return song_file(events, rng.choice([96, 480, 1000]), rng.choice([400000, 500000, 617283]))


def parse_program(text, laser, problems):
    """(head lines, holes as (number texts, feed rates), lines after the moves)."""
    if not text.endswith("\r\n"):
        problems.append("the program does not end with CR LF")
    lines = text.split("\r\n")[:-1] if text.endswith("\r\n") else text.split("\r\n")
    bad = [l for l in lines if "\n" in l or "\r" in l]
    if bad:
        problems.append("a line is not ended by CR LF alone: %r" % bad[0])
    i = next((k for k, l in enumerate(lines) if l.startswith("G0 X")), len(lines))
    if i and lines[i - 1] == "G0 M5 S0":
        i -= 1
    head, holes, strike = lines[:i], [], 0
    num = r"(-?[0-9]+(?:\.[0-9]+)?)"
    sides = [re.compile(r"^G1 %s%s F(\S+)$" % (axis, num)) for axis in "XYXY"]
    while i < len(lines) and lines[i].startswith("G0 X"):
        m = re.match(r"^G0 X%s Y%s$" % (num, num), lines[i])
        if not m:
            problems.append("line %d: bad move %r" % (i + 1, lines[i]))
            return head, holes, lines[i:]
        x1, y1 = m.groups()
        if laser:
            ms = [p.match(l) for p, l in zip(sides, lines[i + 1:i + 5])]
            if len(ms) < 4 or not all(ms):
                problems.append("line %d: not a rectangle: %r" % (i + 1, lines[i:i + 5]))
                return head, holes, lines[i:]
            if ms[2].group(1) != x1 or ms[3].group(1) != y1:
                problems.append("line %d: the rectangle does not close: %r" % (i + 1, lines[i:i + 5]))
            holes.append(((x1, y1, ms[0].group(1), ms[1].group(1)), {m.group(2) for m in ms}))
            i += 5
        else:
            want = "G1 Z1" if strike % 2 == 0 else "G1 Z-1"
            if lines[i + 1:i + 2] != [want]:
                problems.append("line %d: expected %r, got %r" % (i + 2, want, lines[i + 1:i + 2]))
            strike += 1
            holes.append(((x1, y1), set()))
            i += 2
    return head, holes, lines[i:]


def compare_holes(expected, got, problems):
    bad = sorted({t for h, _ in got for t in h if ref_holes.num(float(t)) != t})
    if bad:
        problems.append("%d numbers are not in their shortest 15-digit form, e.g. %s (should be %s)"
                        % (len(bad), bad[:5], [ref_holes.num(float(t)) for t in bad[:5]]))
    exp, act = collections.Counter(expected), collections.Counter(h for h, _ in got)
    if exp == act:
        return
    missing, extra = sorted((exp - act).elements()), sorted((act - exp).elements())
    problems.append("holes: %d expected, %d in the program; %d missing, e.g. %s; %d unexpected, e.g. %s"
                    % (sum(exp.values()), sum(act.values()), len(missing), missing[:4], len(extra), extra[:4]))


def fixed(x, decimals, int_digits=1):
    """Fixed-point text of the value's 15-digit decimal form (8.295 shows as 8.30), half away from zero."""
    q = decimal.Decimal("%.15g" % x).quantize(decimal.Decimal(1).scaleb(-decimals), decimal.ROUND_HALF_UP)
    whole, _, frac = str(q).partition(".")
    return whole.zfill(int_digits) + "." + frac


def check_report(plan, holes, log, problems, marks):
    """The lines of the report that do not depend on the travel order."""
    lines = log.replace("\r\n", "\n").split("\n")
    if plan.laser:
        cut = sum(2 * (float(y2) - float(y1)) + 2 * plan.ldecoupe for _, y1, _, y2 in holes)
        want = ["   - Cuttings length : " + fixed(cut / 1000, 2) + " m"]
        length = max([float(h[3]) for h in holes] + [0.0]) / 1000
    else:
        want = ["   - Number of punch strikes : %d" % len(holes)]
        length = max([float(h[1]) for h in holes] + [0.0]) / 1000 + plan.l_poincon / 2000
    n = plan.out_of_scale
    if n:
        want.append("--->  1 note is not" if n == 1 else "--->  %d notes are not" % n)
        want[-1] += " in the organ scale"
    if marks and marks[0] > 0:
        if marks[1] is None:
            length = None  # measured to the last hole written: depends on the travel order
        else:
            length = (plan.vit * marks[1] / 1000 - plan.vit * marks[0] / 1000) / 1000
            length += 0 if plan.laser else plan.l_poincon / 2000
    if length is not None:
        want.append("Roll length : " + (fixed(length, 3, 2) if length > 10 else fixed(length, 3)) + " m")
    for w in want:
        if w not in lines:
            key = w.split(":")[0][:12] if ":" in w else w[:8]
            problems.append("report: expected %r, got %r" % (w, [l for l in lines if l.startswith(key)]))


def check_one(cli, song, machine, scale, sets, work, env, scale_file=None, marks=None):
    title = os.path.splitext(os.path.basename(song))[0]
    rc, events, err = run([cli, "decode", song])
    if rc != 0:
        return ["decode failed: %r" % err]
    plan = ref_holes.Plan(machine, scale, scale_file, sets)
    start_mark, end_mark = marks or (0.0, None)
    expected = [tuple(ref_holes.num(x) for x in h)
                for h in plan.holes(events.decode("latin-1").split("\n"), start_mark, end_mark)]
    out = os.path.join(work.path, "%s_%s_%d.gcode" % (title, machine, abs(hash((scale, str(sets), marks)))))
    cmd = [cli, "convert", song, "--defaults", "--machine", machine, "--scale", scale, "--out", out]
    cmd += ["--set", "RollCleanup=0"]  # the model is the plan without the roll cleanup,
    cmd += ["--set", "Channels=1-16", "--set", "Transpose=0"]  # of every channel, unshifted
    cmd += [a for k, v in sets.items() for a in ("--set", "%s=%s" % (k, v))]
    if marks:
        cmd += ["--start-mark", repr(start_mark)]
        cmd += ["--end-mark", repr(end_mark)] if end_mark is not None else []
    rc, log, err = run(cmd, env)
    if rc != 0 or not os.path.exists(out):
        return ["convert failed (%d): %r" % (rc, err[-300:])]
    with open(out, "rb") as fh:
        text = fh.read().decode("latin-1")
    problems = []
    head, holes, tail = parse_program(text, machine == "laser", problems)
    want_head, want_tail = plan.fixed_lines(title, start_mark)
    if head != want_head:
        problems.append("head lines: expected %r, got %r" % (want_head, head))
    if tail != want_tail:
        problems.append("last lines: expected %r, got %r" % (want_tail, tail[:3]))
    feeds = set().union(*[f for _, f in holes])
    if feeds and feeds != {plan.vitesse}:
        problems.append("feed rates: expected F%s, got %s" % (plan.vitesse, sorted(feeds)))
    compare_holes(expected, holes, problems)
    # with marks the report of the program between them comes last
    log = log.split(b"Gcode writing between marks")[-1].decode("latin-1")
    check_report(plan, expected, log, problems, marks)
    return problems


def main(argv):
    if not argv:
        sys.stderr.write(__doc__)
        return 2
    cli, paths = argv[0], songs(argv[1:])
    work = WorkFolder("veltrin-refholes-")
    rng = random.Random(20261122)
    made = [("edge-lengths", edge_song()),
            ("one-out", song_file([(0, 0x90, 60, 64), (500, 0x80, 60, 0), (600, 0x90, 30, 64),
                                   (900, 0x80, 30, 0)])),
            ("long-roll", song_file([(0, 0x90, 62, 64), (400, 0x80, 62, 0), (199000, 0x90, 64, 64),
                                     (200500, 0x80, 64, 0)]))]
    made += [("random%02d" % k, random_song(rng)) for k in range(12)]
    paths += [work.write(name + ".mid", data) for name, data in made]
    env = dict(os.environ, VELTRIN_DOCUMENTS=os.path.join(work.path, "docs"))
    work.write("docs/Veltrin/Temp/.keep", b"")
    scale_file = work.write("docs/Veltrin/Instruments/%s.txt" % SCALE_NAME, SCALE_TEXT.encode("ascii"))
    runs = failures = 0
    for song in paths:
        main_song = song == paths[0] or "edge-" in song
        configs = CONFIGS + (EXTRA_CONFIGS if main_song or "random00" in song else [])
        if main_song or "random01" in song:
            configs += [("laser", SCALE_NAME, {}), ("punch", SCALE_NAME, {})]
        runs_here = [c + (None,) for c in configs] + (MARK_CONFIGS if main_song else [])
        for machine, scale, sets, marks in runs_here:
            runs += 1
            problems = check_one(cli, song, machine, scale, sets, work, env,
                                 scale_file if scale == SCALE_NAME else None, marks)
            if problems:
                failures += 1
                print("DIFF %s --machine %s --scale %r %s%s\n    %s" % (
                    os.path.basename(song), machine, scale, " ".join("--set %s=%s" % kv for kv in sets.items()),
                    " marks %r" % (marks,) if marks else "", "\n    ".join(problems)))
    print("%d programs checked, %d differ; files in %s" % (runs, failures, work.path))
    if not failures:
        work.close()
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
