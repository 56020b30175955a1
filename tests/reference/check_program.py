#!/usr/bin/env python3
"""Differential test of the whole program of `veltrin-cli convert` against ref_program.py.

Usage: check_program.py [--fresh-track] VELTRIN_CLI [MIDI files or folders...]

For each song and configuration (machine, scale, settings, marks, width search or a
fixed Fourchette) the program that `veltrin-cli convert SONG --defaults ...` writes
must be byte for byte the reference's, travel order included, and so must the
program between the marks (the last one written when both marks are set) and the
log printed on standard output, every report included (run with
LC_ALL=C, so the report's decimal separator is ".").  Settings live in a temporary
config folder (XDG_CONFIG_HOME), the Documents folder is a temporary one
(VELTRIN_DOCUMENTS) holding the scale files.  The model is the plan without the roll
cleanup, of every MIDI channel and with no transposition, so every conversion runs with
--set RollCleanup=0 --set Channels=1-16 --set Transpose=0.

--fresh-track: the model starts every generation with derniere_piste 0 instead of
the track that the previous generation (the last one of the width search) ended on.
"""

import os
import random
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import WorkFolder, run, songs  # noqa: E402
import check_holes  # noqa: E402
from check_holes import KOLBY, AF, SCALE_NAME, SCALE_TEXT, song_file  # noqa: E402
import ref_holes  # noqa: E402
import ref_program  # noqa: E402

# A scale wider than 31 tracks: the travel order must group every track of a band.
WIDE_NAME = "Wide organ"
WIDE_NOTES = list(range(36, 82))
WIDE_TEXT = "\r\n".join(["// 46 tracks", "62.5 // roll speed mm/s", "300 // roll width",
                         "5.5 // first track axis", "5.75 // track pitch", "0 // not folded",
                         "x%d // tracks" % len(WIDE_NOTES)] + [str(n) for n in WIDE_NOTES]) + "\r\n"
PITCHES = check_holes.PITCHES

# (machine, scale, settings, marks or None, width search)
BASE = [("laser", KOLBY, {}, None, True), ("punch", KOLBY, {}, None, True),
        ("laser", AF, {}, None, True), ("punch", AF, {}, None, True)]
VARIANTS = [
    ("laser", KOLBY, {"Lgponts": "0"}, None, True),
    ("laser", KOLBY, {"Vitcarton": "80", "Dist_ponts": "7.3", "Laser_mode": "M4", "Gen_entete": "0"}, None, True),
    ("laser", AF, {"Lgponts": "2.3", "Dist_ponts": "7.7", "BassesAF": "5.5", "duree_metre_laser": "0.0625"},
     None, True),
    ("punch", KOLBY, {"Lgponts": "0", "L_poincon": "2.2", "Vitcarton": "47"}, None, True),
    ("punch", AF, {"Lgponts": "1.1", "L_poincon": "4.7", "VitesseF_poin": "7000.5",
                   "duree_trou_poincon": "0.35", "Gen_entete": "0"}, None, True),
    ("laser", KOLBY, {"Fourchette": "45"}, None, True),  # the current width outside 1..30
    ("punch", KOLBY, {"Fourchette": "0.0"}, None, True),  # 0 mm: a band per start time
    ("laser", AF, {"Fourchette": "0.5"}, None, True),
    # power and origin texts, feed rates rounded to whole numbers, M4, a learned duration of
    # more than a day (wraps round)
    ("laser", KOLBY, {"VitesseF": "1200.50", "Laser_power": "750.0", "Laser_mode": "M4",
                      "OrigineX": "2.50", "duree_metre_laser": "9.5"}, None, True),
    ("punch", KOLBY, {"VitesseF_poin": "6000.5", "OrigineX_poin": "0", "duree_trou_poincon": "61.7"}, None, True),
    ("laser", AF, {"VitesseF": "1000.5", "Ldecoupe": "3.7", "Talon": "9.25"}, None, True),
]
FIXED_WIDTHS = [("laser", KOLBY, {"Fourchette": f}, None, False) for f in ("0", "1", "6", "7.50", "30", "0.0", "2.25")]
FIXED_WIDTHS += [("laser", KOLBY, {"Fourchette": "5", "Vitcarton": "80"}, None, False)]  # 62.5 ms: half to even
FIXED_WIDTHS += [("punch", AF, {"Fourchette": f}, None, False) for f in ("3", "12", "45")]
MARKS = [
    ("punch", KOLBY, {}, (5000.7, 20000.0), True),
    ("laser", AF, {}, (None, 12345.0), True),
    ("laser", KOLBY, {}, (7000.0, None), True),
    ("punch", AF, {"Gen_entete": "0"}, (3001.0, 9999.5), False),
    ("laser", KOLBY, {"Vitcarton": "47"}, (2500.5, 2500.9), True),  # no hole between the marks
    ("punch", KOLBY, {}, (900000.0, None), True),  # start mark past the end: nothing written
    ("laser", KOLBY, {"Fourchette": "11"}, (0.4, 60000.0), False),  # start mark below 1 ms
    ("punch", KOLBY, {}, (20000.0, 20000.5), False),  # end just after start: no hole
    ("laser", AF, {}, (0.0, None), False),  # a start mark of 0 is no mark: song.gcode
    ("punch", AF, {}, (0.0, 15000.0), False),
]
LOCALES = [("laser", KOLBY, {}, (3000.0, 9000.0), False, "de_DE.UTF-8"),
           ("punch", AF, {"Vitcarton": "47"}, None, True, "fr_FR.UTF-8")]
# An end mark of 500000 ms is the unset one: the holes after 500 s stay in.
LATE_MARKS = [("laser", KOLBY, {}, (None, 500000.0), False), ("punch", KOLBY, {}, (None, 500001.0), False),
              ("laser", KOLBY, {}, (250000.0, None), False)]


def chord_song(rng, count=60):
    """Chords of many tracks and long notes: bands hold several pieces of one track and of many."""
    events, busy = [], {}
    t = rng.randint(0, 400)
    for _ in range(count):
        for p in rng.sample(PITCHES + [31], rng.randint(3, 9)):
            if busy.get(p, 0) > t:
                continue
            d = rng.choice([rng.randint(20, 120), rng.randint(200, 900), rng.randint(900, 3000)])
            events += [(t, 0x90, p, 80), (t + d, 0x80, p, 0)]
            busy[p] = t + d + 1
        t += rng.choice([0, 1, 60, 117, 118, 250, 400])
    # one pitch on two channels with the same start: two pieces of one track, one start
    events += [(t + 100, 0x91, 62, 80), (t + 400, 0x81, 62, 0), (t + 100, 0x92, 62, 80), (t + 900, 0x82, 62, 0)]
    return song_file(events)


def band_edge_song():
    """Starts at exactly debut_bande + temps_fourchette and one more, for the band widths
    100, 117 (7 mm at 60 mm/s) and 128 (7.5 mm): a start equal to the edge stays in the band."""
    events, t = [], 1000  # the first band runs from 0, not from the first start
    for width in (100, 117, 128, 0, 17):
        for k in range(6):
            a, b = PITCHES[(5 * k + width) % len(PITCHES)], PITCHES[(7 * k + 3) % len(PITCHES)]
            events += [(t, 0x90, a, 64), (t + 60, 0x80, a, 0)]
            events += [(t + width, 0x90, b, 64), (t + width + 40, 0x80, b, 0)]
            t += width + 1
        t += 3000
    return song_file(events)


def entry_track_song():
    """The first band spans a low and a high track and the song ends on a high track
    alone: the first band's direction depends on the track the previous generation
    ended on."""
    events = [(0, 0x90, 50, 64), (80, 0x80, 50, 0), (10, 0x90, 82, 64), (90, 0x80, 82, 0),
              (30, 0x90, 53, 64), (70, 0x80, 53, 0)]
    for k in range(8):
        p = PITCHES[(k * 5) % len(PITCHES)]
        events += [(600 + 450 * k, 0x90, p, 64), (700 + 450 * k, 0x80, p, 0)]
    events += [(8000, 0x90, 84, 64), (8100, 0x80, 84, 0)]
    return song_file(events)


def one_band_song():
    """Four holes on tracks 0 and 20 within 530 ms: 45 mm (750 ms at 60 mm/s) puts them in
    one band and travels less than any width of 1..30 mm, which cut them in two bands."""
    return song_file([(0, 0x90, 57, 64), (60, 0x80, 57, 0), (10, 0x90, 78, 64), (70, 0x80, 78, 0),
                      (520, 0x90, 78, 64), (580, 0x80, 78, 0), (530, 0x90, 57, 64), (590, 0x80, 57, 0)])


def wide_song(rng):
    events, t = [], 0
    for _ in range(40):
        for p in rng.sample(WIDE_NOTES, rng.randint(2, 12)):
            events += [(t, 0x90, p, 70), (t + rng.randint(30, 1200), 0x80, p, 0)]
        t += 1300
    return song_file(events)


def first_difference(name, want, got):
    """A description of the first differing line, with two lines of context."""
    w, g = want.split("\n"), got.split("\n")
    for i in range(max(len(w), len(g))):
        if i >= len(w) or i >= len(g) or w[i] != g[i]:
            ctx = range(max(0, i - 2), min(max(len(w), len(g)), i + 3))
            rows = ["%s differs at line %d (%d lines expected, %d written):" % (name, i + 1, len(w), len(g))]
            for k in ctx:
                a, b = (w[k] if k < len(w) else "<none>"), (g[k] if k < len(g) else "<none>")
                rows.append("  %s %5d want %r" % (">" if k == i else " ", k + 1, a))
                if a != b:
                    rows.append("  %s %5d got  %r" % (">" if k == i else " ", k + 1, b))
            return rows
    return []


def cli_key(key, scale):
    """The settings of the 20-note scale's geometry are stored under their own keys."""
    return key + "AF" if scale == AF and key in ("Vitcarton", "Ldecoupe", "Dist_notes", "Talon") else key


def read(path):
    if not os.path.exists(path):
        return None
    with open(path, "rb") as fh:
        return fh.read().decode("latin-1")


def check_one(cli, song, events, config, work, env, scale_files, fresh_track):
    machine, scale, sets, marks, search = config[:5]
    separator = "."
    if len(config) > 5:  # a locale with a decimal comma: the report follows it, the program does not
        env, separator = dict(env, LC_ALL=config[5]), ","
    title = os.path.splitext(os.path.basename(song))[0]
    plan = ref_holes.Plan(machine, scale, scale_files.get(scale), dict(ref_program.EXTRA_DEFAULTS, **sets))
    conv = ref_program.Converter(plan, title, fresh_track, separator)
    start_mark, end_mark = marks or (None, None)
    log, program, between = conv.convert(events, search, start_mark, end_mark)
    temp = os.path.join(env["VELTRIN_DOCUMENTS"], "Veltrin", "Temp")
    for f in os.listdir(temp):
        os.remove(os.path.join(temp, f))
    cmd = [cli, "convert", song, "--machine", machine, "--scale", scale]
    cmd += ["--set", "RollCleanup=0"]  # the model is the plan without the roll cleanup,
    cmd += ["--set", "Channels=1-16", "--set", "Transpose=0"]  # of every channel, unshifted
    # A --set Fourchette is used as given, with no search: the current width of a search is
    # a stored one, the other settings at their defaults.
    stored = {k: v for k, v in sets.items() if search and k == "Fourchette"}
    conf = os.path.join(env["XDG_CONFIG_HOME"], "Veltrin", "Veltrin.conf")
    os.makedirs(os.path.dirname(conf), exist_ok=True)
    with open(conf, "w") as fh:
        fh.write("[Startup]\n" + "".join("%s=%s\n" % kv for kv in stored.items()))
    cmd += [] if stored else ["--defaults"]
    cmd += [a for k, v in sets.items() if k not in stored for a in ("--set", "%s=%s" % (cli_key(k, scale), v))]
    cmd += [] if search else ["--no-width-search"]
    if marks:  # both programs land in the Temp folder
        cmd += ["--start-mark", repr(start_mark)] if start_mark is not None else []
        cmd += ["--end-mark", repr(end_mark)] if end_mark is not None else []
        unset = (start_mark or 0.0) == 0 and (end_mark is None or end_mark == ref_program.UNSET_END)
        out = os.path.join(temp, title + ".gcode")
        out_between = out if unset else os.path.join(temp, title + "_between marks.gcode")
    else:
        out, out_between = os.path.join(work.path, "program.gcode"), None
        cmd += ["--out", out]
    rc, stdout, err = run(cmd, env)
    if rc != 0:
        return ["convert failed (%d): %r" % (rc, err[-300:])]
    problems = []
    got_log = stdout.decode("utf-8", "replace").split("\n")
    # The machine time from the model of Grbl's planner has tests of its own (grbl_planner_tests).
    got_log = [line for line in got_log if not line.startswith("Machine time (Grbl model) : ")]
    last = out_between or out
    if got_log[-2:] != [last, ""]:
        problems.append("the log does not end with the program's path %r: %r" % (last, got_log[-3:]))
    problems += first_difference("log", "\n".join(log), "\n".join(got_log[:-2]))
    crlf = lambda lines: "".join(l + "\r\n" for l in lines)  # noqa: E731
    for name, path, want in (("program", out, program), ("program between marks", out_between, between)):
        if path is None:
            continue
        got = read(path)
        if got is None:
            problems.append("%s: no file %s" % (name, path))
        elif got != crlf(want):
            problems += first_difference(name, crlf(want), got) or ["%s: line ends differ" % name]
    return problems


def main(argv):
    fresh_track = "--fresh-track" in argv
    argv = [a for a in argv if a != "--fresh-track"]
    if not argv:
        sys.stderr.write(__doc__)
        return 2
    cli, paths = argv[0], songs(argv[1:])
    work = WorkFolder("veltrin-refprogram-")
    rng = random.Random(20261122)
    made = [("edge-lengths", check_holes.edge_song()), ("band-edges", band_edge_song()),
            ("entry-track", entry_track_song()), ("one-band", one_band_song()), ("chords-a", chord_song(rng)),
            ("chords-b", chord_song(rng, 25)), ("wide", wide_song(rng))]
    made += [("random%02d" % k, check_holes.random_song(rng)) for k in range(6)]
    made += [("long-roll", song_file([(0, 0x90, 62, 64), (400, 0x80, 62, 0), (199000, 0x90, 64, 64),
                                      (200500, 0x80, 64, 0)])),
             ("\u00c7a va? ok!~x", chord_song(rng, 4)),  # a title the comment cannot carry as it is
             ("one-out", song_file([(0, 0x90, 60, 64), (500, 0x80, 60, 0), (600, 0x90, 30, 64), (900, 0x80, 30, 0)])),
             ("late", song_file([(1000, 0x90, 62, 64), (1400, 0x80, 62, 0), (499999, 0x90, 64, 64),
                                 (500300, 0x80, 64, 0), (500000, 0x90, 67, 64), (500100, 0x80, 67, 0),
                                 (650000, 0x90, 69, 64), (651000, 0x80, 69, 0)]))]
    paths += [work.write("songs/%s.mid" % name, data) for name, data in made]
    docs = os.path.join(work.path, "docs")
    env = dict(os.environ, VELTRIN_DOCUMENTS=docs, XDG_CONFIG_HOME=os.path.join(work.path, "config"), LC_ALL="C")
    os.makedirs(os.path.join(docs, "Veltrin", "Temp"))
    scale_files = {name: work.write("docs/Veltrin/Instruments/%s.txt" % name, text.encode("ascii"))
                   for name, text in ((SCALE_NAME, SCALE_TEXT), (WIDE_NAME, WIDE_TEXT))}
    runs = failures = 0
    for song in paths:
        name = os.path.basename(song)
        rc, events, err = run([cli, "decode", song])
        if rc != 0:
            print("DIFF %s: decode failed: %r" % (name, err[-300:]))
            failures += 1
            continue
        events = events.decode("latin-1").split("\n")
        configs = list(BASE)
        if name.startswith(("frere", "edge", "chords-a", "band")):
            configs += VARIANTS + FIXED_WIDTHS + MARKS
        if name.startswith(("frere", "long-roll")):
            configs += LOCALES
        if name.startswith(("chords-b", "random00", "lavender")):
            configs += [("laser", SCALE_NAME, {}, None, True),
                        ("punch", SCALE_NAME, {"Fourchette": "2"}, None, False)]
        if name.startswith("late"):
            configs += LATE_MARKS
        if name.startswith("one-band"):
            configs += [(m, KOLBY, {"Fourchette": "45"}, None, True) for m in ("laser", "punch")]
        if name.startswith("wide"):
            configs = [("laser", WIDE_NAME, {}, None, True), ("punch", WIDE_NAME, {}, None, True),
                       ("laser", WIDE_NAME, {"Fourchette": "25"}, None, False)]
        for config in configs:
            runs += 1
            problems = check_one(cli, song, events, config, work, env, scale_files, fresh_track)
            if problems:
                failures += 1
                machine, scale, sets, marks, search = config[:5]
                print("DIFF %s --machine %s --scale %r %s%s%s%s\n    %s" % (
                    name, machine, scale, " ".join("--set %s=%s" % (cli_key(k, scale), v) for k, v in sets.items()),
                    " marks %r" % (marks,) if marks else "", "" if search else " --no-width-search",
                    " LC_ALL=" + config[5] if len(config) > 5 else "",
                    "\n    ".join(problems)))
    print("model turns taken: " + ", ".join("%s %d" % kv for kv in sorted(ref_program.STATS.items())))
    print("%d conversions checked, %d differ; files in %s" % (runs, failures, work.path))
    if not failures:
        work.close()
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
