#!/usr/bin/env python3
"""Differential test of the holes of `veltrin-cli convert` against ref_holes.py.

Usage: check_holes.py VELTRIN_CLI [MIDI files or folders...]

For every song, both machines and both built-in scales (and a few changed
settings), the program written by
    veltrin-cli convert SONG --defaults --machine M --scale S [--set K=V] --out FILE
must hold:
  - the title, header and power lines and the last line "G0 M5 S0" exactly,
    every line ended by CR LF;
  - the moves in blocks of the right shape (laser: G0 then the four G1 sides of
    the rectangle back to its corner; punch: G0 then G1 Z1 / G1 Z-1 in turn);
  - every number as the shortest text of at most 15 significant digits;
  - the same multiset of holes as the reference computes from the song's event
    lines (travel order ignored); numbers compared as text, and a hole whose
    text differs is reported with its numeric difference;
  - the report lines that do not depend on the travel order: the cut length
    (laser) or the number of strikes (punch), the notes out of the scale and
    the roll length.
"""

import collections
import decimal
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source folder clean
import ref_holes  # noqa: E402

NUM = r"(-?[0-9]+(?:\.[0-9]+)?)"

CONFIGS = [
    ("laser", "Kolby 27-29", {}),
    ("laser", "Alder Fenn 20", {}),
    ("punch", "Kolby 27-29", {}),
    ("punch", "Alder Fenn 20", {}),
]
EXTRA_CONFIGS = [
    # no bridges: one cut per note
    ("laser", "Kolby 27-29", {"Lgponts": "0"}),
    # odd lengths: piece times that are not whole milliseconds, M4 power, no header
    ("laser", "Alder Fenn 20", {"Lgponts": "2.3", "Dist_ponts": "7.7", "Laser_mode": "M4", "Gen_entete": "0"}),
    ("punch", "Kolby 27-29", {"Lgponts": "0", "L_poincon": "2.2"}),
    ("punch", "Alder Fenn 20", {"Lgponts": "1.1", "L_poincon": "4.7", "VitesseF_poin": "7000.5"}),
]

# Programs between marks: (machine, scale, settings, (start mark, end mark or None)).
MARK_CONFIGS = [
    ("punch", "Kolby 27-29", {}, (5000.7, 20000.0)),
    ("laser", "Alder Fenn 20", {}, (0.0, 12345.0)),
    ("laser", "Kolby 27-29", {}, (7000.0, None)),
    ("punch", "Alder Fenn 20", {"Gen_entete": "0"}, (3001.0, 9999.5)),
]


def vlq(n):
    out = [n & 0x7F]
    n >>= 7
    while n:
        out.append(0x80 | (n & 0x7F))
        n >>= 7
    return bytes(reversed(out))


def song_file(events, division=1000, tempo=1000000):
    """Format 0 song from (tick, status, data1, data2) events; 1 tick = 1 ms by default."""
    body = bytearray(vlq(0) + bytes([0xFF, 0x51, 3]) + tempo.to_bytes(3, "big"))
    last = 0
    for tick, st, a, b in sorted(events, key=lambda e: (e[0], e[1] & 0xF0 == 0x90)):
        body += vlq(tick - last) + bytes([st, a, b])
        last = tick
    body += b"\x00\xFF\x2F\x00"
    return (b"MThd" + (6).to_bytes(4, "big") + (0).to_bytes(2, "big") + (1).to_bytes(2, "big")
            + division.to_bytes(2, "big") + b"MTrk" + len(body).to_bytes(4, "big") + bytes(body))


def edge_song():
    """Every track of both scales with the lengths where the cutting rules change."""
    lengths = [1, 3, 49, 50, 51, 74, 75, 76, 249, 250, 251, 325, 326, 327, 549, 550, 551, 600, 601,
               750, 1000, 1234, 2500, 10001]
    pitches = sorted(set(ref_holes.KOLBY) | set(ref_holes.ALDER_FENN)) + [20, 100, 127]
    events = []
    for n, pitch in enumerate(pitches):
        start = 7 * n
        for d in lengths:
            events.append((start, 0x90, pitch, 64))
            events.append((start + d, 0x80, pitch, 64))
            start += d + 30
    return song_file(events)


def random_song(rng):
    pitches = sorted(set(ref_holes.KOLBY) | set(ref_holes.ALDER_FENN)) + [30, 90]
    events = []
    busy = {}
    for _ in range(rng.randint(20, 200)):
        p = rng.choice(pitches)
        start = max(busy.get(p, 0), rng.randint(0, 60000))
        d = rng.choice([rng.randint(1, 100), rng.randint(100, 2000), rng.randint(2000, 9000)])
        events.append((start, 0x90 | rng.randint(0, 3), p, rng.randint(1, 127)))
        events.append((start + d, 0x80 | (events[-1][1] & 0x0F), p, 0))
        busy[p] = start + d + 1
    return song_file(events, division=rng.choice([96, 480, 1000]), tempo=rng.choice([400000, 500000, 617283]))


# A scale file with the reading rules that matter: header comments, a comment
# after each value, the track count behind one leading character, a note written
# 60.6 (read as 61), a note that appears twice (its first track wins), speeds and
# distances that give fractional times and positions.
SCALE_NAME = "Test organ"
SCALE_TEXT = "\r\n".join([
    "// a scale for the hole check",
    "// second header line",
    "55.5 // roll speed mm/s",
    "120 // roll width",
    "7.25 // first track axis",
    "3.9 // track pitch",
    "0 // not folded",
    " 12 // tracks",
    "48", "50", "52", "53", "55", "57", "59", "60.6 // written with a decimal", "62", "64", "55", "67 // last",
]) + "\r\n"


def run(cmd, env=None):
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, env=env)
    return p.returncode, p.stdout, p.stderr


def parse_program(text, laser, problems):
    """Returns (fixed head lines, holes as tuples of number texts, last line)."""
    if not text.endswith("\r\n"):
        problems.append("the program does not end with CR LF")
    lines = text.split("\r\n")
    if lines and lines[-1] == "":
        lines.pop()
    for i, l in enumerate(lines):
        if "\n" in l or "\r" in l:
            problems.append("line %d is not ended by CR LF alone: %r" % (i + 1, l))
            break
    head = []
    i = 0
    while i < len(lines) and not lines[i].startswith("G0 X"):
        head.append(lines[i])
        i += 1
    if head and head[-1] == "G0 M5 S0":
        head.pop()
        i -= 1
    holes = []
    strike = 0
    g0 = re.compile(r"^G0 X%s Y%s$" % (NUM, NUM))
    while i < len(lines) and lines[i].startswith("G0 X"):
        m = g0.match(lines[i])
        if not m:
            problems.append("line %d: bad move %r" % (i + 1, lines[i]))
            return head, holes, lines[i:]
        x1, y1 = m.group(1), m.group(2)
        if laser:
            block = lines[i + 1:i + 5]
            pat = [r"^G1 X%s F(\S+)$" % NUM, r"^G1 Y%s F(\S+)$" % NUM,
                   r"^G1 X%s F(\S+)$" % NUM, r"^G1 Y%s F(\S+)$" % NUM]
            ms = [re.match(p, l) for p, l in zip(pat, block)]
            if len(block) < 4 or not all(ms):
                problems.append("line %d: not a rectangle: %r" % (i + 1, lines[i:i + 5]))
                return head, holes, lines[i:]
            x2, y2 = ms[0].group(1), ms[1].group(1)
            if ms[2].group(1) != x1 or ms[3].group(1) != y1:
                problems.append("line %d: the rectangle does not close on its corner: %r" % (i + 1, lines[i:i + 5]))
            feeds = {m.group(2) for m in ms}
            holes.append(((x1, y1, x2, y2), feeds))
            i += 5
        else:
            want = "G1 Z1" if strike % 2 == 0 else "G1 Z-1"
            if i + 1 >= len(lines) or lines[i + 1] != want:
                problems.append("line %d: expected %r after the move, got %r"
                                % (i + 2, want, lines[i + 1] if i + 1 < len(lines) else None))
            strike += 1
            holes.append(((x1, y1), set()))
            i += 2
    return head, holes, lines[i:]


def check_numbers(holes, problems):
    bad = set()
    for h, _ in holes:
        for t in h:
            if ref_holes.num(float(t)) != t:
                bad.add(t)
    if bad:
        ex = sorted(bad)[:5]
        problems.append("%d numbers are not in their shortest 15-digit form, e.g. %s (should be %s)"
                        % (len(bad), ex, [ref_holes.num(float(t)) for t in ex]))


def compare_holes(expected, got, problems):
    exp = collections.Counter(expected)
    act = collections.Counter(h for h, _ in got)
    if exp == act:
        return
    missing = list((exp - act).elements())
    extra = list((act - exp).elements())
    # pair the leftovers numerically to tell a value fault from a text one
    near = 0
    for m in list(missing):
        for e in extra:
            if all(abs(float(a) - float(b)) <= 1e-9 for a, b in zip(m, e)):
                near += 1
                missing.remove(m)
                extra.remove(e)
                break
    problems.append("holes: %d expected, %d in the program; %d differ only in their text; "
                    "%d missing, e.g. %s; %d unexpected, e.g. %s"
                    % (sum(exp.values()), sum(act.values()), near, len(missing), sorted(missing)[:4],
                       len(extra), sorted(extra)[:4]))


def check_one(cli, song, machine, scale, sets, work, env, scale_file=None, marks=None):
    problems = []
    title = os.path.splitext(os.path.basename(song))[0]
    rc, events, err = run([cli, "decode", song])
    if rc != 0:
        return ["decode failed: %r" % err]
    plan = ref_holes.Plan(machine, scale, scale_file, sets)
    ev_lines = events.decode("latin-1").split("\n")
    start_mark, end_mark = marks or (0.0, None)
    expected = [tuple(ref_holes.num(x) for x in h) for h in plan.holes(ev_lines, start_mark, end_mark)]
    out = os.path.join(work, "%s_%s_%d.gcode" % (title, machine, abs(hash((scale, tuple(sorted(sets.items())))))))
    cmd = [cli, "convert", song, "--defaults", "--machine", machine, "--scale", scale, "--out", out]
    for k, v in sets.items():
        cmd += ["--set", "%s=%s" % (k, v)]
    if marks:
        cmd += ["--start-mark", repr(start_mark)]
        if end_mark is not None:
            cmd += ["--end-mark", repr(end_mark)]
    rc, log, err = run(cmd, env)
    if rc != 0 or not os.path.exists(out):
        return ["convert failed (%d): %r" % (rc, err[-300:])]
    with open(out, "rb") as fh:
        text = fh.read().decode("latin-1")
    laser = machine == "laser"
    head, holes, tail = parse_program(text, laser, problems)
    want_head, want_tail = plan.fixed_lines(title, start_mark)
    if head != want_head:
        problems.append("head lines: expected %r, got %r" % (want_head, head))
    if tail != want_tail:
        problems.append("last lines: expected %r, got %r" % (want_tail, tail[:3]))
    if laser:
        feeds = set().union(*[f for _, f in holes]) if holes else set()
        if feeds and feeds != {plan.vitesse}:
            problems.append("feed rates: expected F%s, got %s" % (plan.vitesse, sorted(feeds)))
    check_numbers(holes, problems)
    compare_holes(expected, holes, problems)
    if marks:
        # the report of the program between the marks comes last
        log = log.split(b"Gcode writing between marks")[-1]
    check_report(plan, expected, log.decode("latin-1"), problems, marks)
    return problems


def fixed(x, decimals, int_digits=1):
    """Fixed-point text rounded half away from zero, at least int_digits before the point.

    The value is first taken as its 15-significant-digit decimal text, so that
    a sum of 8.295 (in binary 8.29499999...) shows as 8.30, as people read it."""
    q = decimal.Decimal("%.15g" % x).quantize(decimal.Decimal(1).scaleb(-decimals), rounding=decimal.ROUND_HALF_UP)
    whole, _, frac = str(q).partition(".")
    return whole.zfill(int_digits) + "." + frac


def check_report(plan, holes, log, problems, marks=None):
    """The lines of the report that do not depend on the travel order."""
    lines = log.replace("\r\n", "\n").split("\n")
    want = []
    if plan.laser:
        cut = 0.0
        for x1, y1, x2, y2 in holes:
            cut += 2 * (float(y2) - float(y1)) + 2 * plan.ldecoupe
        want.append("   - Cuttings length : " + fixed(cut / 1000, 2) + " m")
        y_max = max([float(h[3]) for h in holes] + [0.0])
        length = y_max / 1000
    else:
        want.append("   - Number of punch strikes : %d" % len(holes))
        y_max = max([float(h[1]) for h in holes] + [0.0])
        length = y_max / 1000 + plan.l_poincon / 2000
    n = plan.out_of_scale
    if n == 1:
        want.append("--->  1 note is not in the organ scale")
    elif n > 1:
        want.append("--->  %d notes are not in the organ scale" % n)
    if marks and marks[0] > 0:
        if marks[1] is None:
            length = None  # measured to the last hole written: depends on the travel order
        else:
            length = (plan.vit * marks[1] / 1000 - plan.vit * marks[0] / 1000) / 1000
            if not plan.laser:
                length += plan.l_poincon / 2000
    if length is not None:
        want.append("Roll length : " + (fixed(length, 3, 2) if length > 10 else fixed(length, 3)) + " m")
    for w in want:
        if w not in lines:
            key = w.split(":")[0][:12] if ":" in w else w[:8]
            seen = [l for l in lines if l.startswith(key)]
            problems.append("report: expected %r, got %r" % (w, seen))


def main(argv):
    if not argv:
        sys.stderr.write(__doc__)
        return 2
    cli = argv[0]
    songs = []
    for a in argv[1:]:
        if os.path.isdir(a):
            songs += sorted(os.path.join(a, f) for f in os.listdir(a) if f.endswith(".mid"))
        else:
            songs.append(a)
    work = tempfile.mkdtemp(prefix="veltrin-refholes-")
    import random
    rng = random.Random(20261122)
    # one note out of the scale (singular wording); a roll longer than 10 m
    one_out = song_file([(0, 0x90, 60, 64), (500, 0x80, 60, 0), (600, 0x90, 30, 64), (900, 0x80, 30, 0)])
    long_roll = song_file([(0, 0x90, 62, 64), (400, 0x80, 62, 0), (199000, 0x90, 64, 64), (200500, 0x80, 64, 0)])
    made = [("edge-lengths.mid", edge_song()), ("one-out.mid", one_out), ("long-roll.mid", long_roll)] + [("random%02d.mid" % k, random_song(rng)) for k in range(12)]
    for name, data in made:
        path = os.path.join(work, name)
        with open(path, "wb") as fh:
            fh.write(data)
        songs.append(path)
    env = dict(os.environ)
    env["VELTRIN_DOCUMENTS"] = os.path.join(work, "docs")
    os.makedirs(os.path.join(work, "docs", "Veltrin", "Temp"), exist_ok=True)
    os.makedirs(os.path.join(work, "docs", "Veltrin", "Instruments"), exist_ok=True)
    scale_file = os.path.join(work, "docs", "Veltrin", "Instruments", SCALE_NAME + ".txt")
    with open(scale_file, "wb") as fh:
        fh.write(SCALE_TEXT.encode("ascii"))
    failures = 0
    runs = 0
    for song in songs:
        configs = CONFIGS + (EXTRA_CONFIGS if song == songs[0] or "edge-" in song or "random00" in song else [])
        if "edge-" in song or "random01" in song or song == songs[0]:
            configs = configs + [("laser", SCALE_NAME, {}), ("punch", SCALE_NAME, {})]
        runs_here = [(m, sc, st, None) for m, sc, st in configs]
        if "edge-" in song or song == songs[0]:
            runs_here += [(m, sc, st, mk) for m, sc, st, mk in MARK_CONFIGS]
        for machine, scale, sets, marks in runs_here:
            runs += 1
            problems = check_one(cli, song, machine, scale, sets, work, env,
                                 scale_file if scale == SCALE_NAME else None, marks)
            if problems:
                failures += 1
                print("DIFF %s --machine %s --scale %r %s%s" % (
                    os.path.basename(song), machine, scale,
                    " ".join("--set %s=%s" % kv for kv in sets.items()),
                    " marks %r" % (marks,) if marks else ""))
                for p in problems:
                    print("    " + p)
    print("%d programs checked, %d differ; files in %s" % (runs, failures, work))
    if not failures:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
