#!/usr/bin/env python3
"""Checks the holes of `veltrin-cli convert` with the roll cleanup on (the default).

Usage: check_cleanup.py VELTRIN_CLI [MIDI files or folders...]

The notes are paired and placed on their tracks as ref_holes.py does; the program's holes
are read back from its moves. On every track: no hole is cut twice, no two holes overlap
or touch (at least Lgponts of card between them, 1.5 mm without bridges), no hole is
shorter than MinHoleLength (nor longer than a piece and the split's end margin, with
bridges), and each run of overlapping notes still starts in a hole of its track or right
at one (moved after the card that follows the hole before it). The laser is checked hole
by hole; the punch by its strikes, which one note may overlap.
"""

import collections
import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import WorkFolder, run, songs  # noqa: E402
from check_holes import parse_program, song_file  # noqa: E402
import ref_holes  # noqa: E402

KOLBY, AF = "Kolby 27-29", "Alder Fenn 20"
CONFIGS = [("laser", KOLBY, {}), ("laser", AF, {}), ("laser", KOLBY, {"Lgponts": "0"}),
           ("laser", KOLBY, {"MinHoleLength": "4", "Lgponts": "2"}), ("punch", KOLBY, {}),
           ("punch", KOLBY, {"Lgponts": "0", "MinHoleLength": "4"})]
REPORT = re.compile(r"^   - Roll cleanup : \d+ [a-z ]+(\(\d+ started later\))?(, \d+ [a-z ]+(\(\d+ started later\))?)*$")


def crowded_song():
    """Two channels on one pitch at once, repeats back to back, 2 ms notes, a note inside another."""
    events = []
    for k, pitch in enumerate((60, 62, 64, 65, 67)):
        t = 100 * k
        for ch in (0, 1):
            events += [(t, 0x90 | ch, pitch, 64), (t + 700, 0x80 | ch, pitch, 0)]
        events += [(t + 700, 0x92, pitch, 64), (t + 1300, 0x82, pitch, 0)]
        events += [(t + 1310, 0x90, pitch, 64), (t + 1312, 0x80, pitch, 0)]
        events += [(t + 2000, 0x90, pitch, 64), (t + 4000, 0x80, pitch, 0)]
        events += [(t + 2500, 0x91, pitch, 64), (t + 2600, 0x81, pitch, 0)]
    return song_file(events)


def runs_by_track(plan, events):
    """Per X text: the starts (ms) of the runs of overlapping notes of that track."""
    notes = collections.defaultdict(list)
    for line in plan.note_lines(events):
        start, note, end = ref_holes.val(line[0:7]), ref_holes.val(line[8:11]), ref_holes.val(line[12:19])
        if note in plan.notes:
            notes[ref_holes.num(plan.position(plan.notes.index(note)))].append((start, end))
    runs = {}
    for x, spans in notes.items():
        starts, run_end = [], None
        for start, end in sorted(spans):
            if run_end is None or start >= run_end:
                starts.append(start)
                run_end = end
            run_end = max(run_end, end)
        runs[x] = starts
    return runs


def check_one(cli, song, machine, scale, sets, work, env):
    rc, events, err = run([cli, "decode", song])
    if rc != 0:
        return ["decode failed: %r" % err]
    events = events.decode("latin-1").split("\n")
    plan = ref_holes.Plan(machine, scale, None, sets)
    out = os.path.join(work.path, "cleanup.gcode")
    cmd = [cli, "convert", song, "--defaults", "--machine", machine, "--scale", scale, "--out", out]
    cmd += ["--set", "Channels=1-16", "--set", "Transpose=0"]  # the model's notes: every channel, unshifted
    cmd += [a for k, v in sets.items() for a in ("--set", "%s=%s" % (k, v))]
    rc, log, err = run(cmd, env)
    if rc != 0:
        return ["convert failed (%d): %r" % (rc, err[-300:])]
    with open(out, "rb") as fh:
        text = fh.read().decode("latin-1")
    problems = []
    _, holes, _ = parse_program(text, plan.laser, problems)
    lines = [l for l in log.decode("latin-1").replace("\r\n", "\n").split("\n") if "Roll cleanup" in l]
    problems += ["report: %r" % l for l in lines if not REPORT.match(l)]

    v, vit = plan.v, plan.vit
    tol = vit / 1000 + 1e-9  # 1 ms of roll: piece times are whole ms
    bridges = v["Lgponts"] > 0
    card = v["Lgponts"] if bridges else 1.5
    shortest = v.get("MinHoleLength", 3.0)
    if plan.laser and bridges:
        shortest = min(shortest, v["Dist_ponts"])
    longest = v["Dist_ponts"] + round(plan.temps_pont + 50) * vit / 1000
    by_x = collections.defaultdict(list)
    for h, _ in holes:
        if plan.laser:
            by_x[h[0]].append((float(h[1]), float(h[3])))
        else:
            by_x[h[0]].append((float(h[1]) - plan.l_poincon / 2, float(h[1]) + plan.l_poincon / 2))
    for x, spans in sorted(by_x.items()):
        spans.sort()
        twice = [s for s, n in collections.Counter(spans).items() if n > 1]
        if twice:
            problems.append("X %s: holes cut twice, e.g. %r" % (x, twice[:3]))
        if not plan.laser:
            continue
        for (a1, b1), (a2, b2) in zip(spans, spans[1:]):
            if a2 - b1 < card - tol:
                problems.append("X %s: holes %r and %r leave %.3f mm of card" % (x, (a1, b1), (a2, b2), a2 - b1))
                break
        for a, b in spans:
            if b - a < shortest - tol or (bridges and b - a > longest + tol):
                problems.append("X %s: hole %r is %.3f mm long" % (x, (a, b), b - a))
                break
    for x, starts in runs_by_track(plan, events).items():
        spans = by_x.get(x, [])
        for start in starts:
            y = vit * start / 1000
            if not any(a - card - tol <= y <= b + tol for a, b in spans):
                problems.append("X %s: the note at %d ms starts in no hole" % (x, start))
                break
    return problems


def main(argv):
    if not argv:
        sys.stderr.write(__doc__)
        return 2
    cli, paths = argv[0], songs(argv[1:])
    work = WorkFolder("veltrin-refcleanup-")
    paths.append(work.write("songs/crowded.mid", crowded_song()))
    env = dict(os.environ, VELTRIN_DOCUMENTS=os.path.join(work.path, "docs"),
               XDG_CONFIG_HOME=os.path.join(work.path, "config"), LC_ALL="C")
    runs = failures = 0
    for song in paths:
        for machine, scale, sets in CONFIGS:
            runs += 1
            problems = check_one(cli, song, machine, scale, sets, work, env)
            if problems:
                failures += 1
                print("DIFF %s --machine %s --scale %r %s\n    %s" % (
                    os.path.basename(song), machine, scale, " ".join("--set %s=%s" % kv for kv in sets.items()),
                    "\n    ".join(problems)))
    print("%d programs checked, %d with faults; files in %s" % (runs, failures, work.path))
    if not failures:
        work.close()
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
