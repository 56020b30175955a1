#!/usr/bin/env python3
"""Independent model of the hole set of a G-code program, standard library only.

Usage: ref_holes.py EVENTS_FILE --machine laser|punch [--scale NAME | --scale-file PATH]
                    [--set KEY=VALUE ...] [--program TITLE]

EVENTS_FILE holds the event lines of a song (what `veltrin-cli decode` prints; "-"
reads standard input); every setting starts at its default value.  Prints the holes
as the program writes their numbers, laser "X1 Y1 X2 Y2" (the rectangle's corners),
punch "X Y" (the strike), in the order of the plan (start time, track, end time),
not the travel order; with --program, the fixed lines: title, header and power
lines, "@@", then the last line.
"""

import argparse
import math
import re
import sys

KOLBY = [57, 48, 50, 53, 55, 60, 62, 64, 65, 66, 67, 69, 70, 71, 72, 73, 74, 75, 76, 77,
         78, 79, 80, 81, 82, 83, 84, 86, 68]
ALDER_FENN = [53, 58, 60, 62, 63, 64, 65, 67, 69, 70, 72, 74, 75, 76, 77, 79, 81, 82, 84, 86]

MACHINE_DEFAULTS = {
    "VitesseF": "800", "OrigineX": "5", "VitesseF_poin": "8000", "OrigineX_poin": "10.5",
    "Laser_power": "1000", "Laser_mode": "M3", "Lgponts": "1.5", "Dist_ponts": "15",
    "L_poincon": "3", "Gen_entete": "1",
}
KOLBY_DEFAULTS = {"Vitcarton": "60", "Ldecoupe": "3", "Dist_notes": "4.2", "Talon": "6.3", "BassesAF": "4"}
AF_DEFAULTS = {"BassesAF": "4", "Vitcarton": "60", "Ldecoupe": "4", "Dist_notes": "6", "Talon": "10"}
NUMBER = re.compile(r"[+-]?(?:[0-9]+(?:\.[0-9]*)?|\.[0-9]+)(?:[eE][+-]?[0-9]+)?")


def val(text):
    """Leading-number reading: blanks skipped, "." decimal point, 0 when there is no number."""
    m = NUMBER.match(text.lstrip(" \t"))
    return float(m.group(0)) if m else 0.0


def round_away(x):
    return int(math.floor(abs(x) + 0.5)) * (1 if x >= 0 else -1)


def num(x):
    """G-code number: shortest text with at most 15 significant digits, "." as separator."""
    if x == 0:
        return "0"
    s = "%.15g" % x
    if "e" in s:
        s = ("%.15f" % x).rstrip("0").rstrip(".")
    return s


def load_scale_file(path):
    """Reads a scale file: returns (Vitcarton, Talon, Dist_notes, notes)."""
    with open(path, "rb") as fh:
        lines = fh.read().decode("latin-1").replace("\r\n", "\n").split("\n")
    while lines and lines[0][:2] == "//":
        lines.pop(0)
    value = [val(line.split("//")[0]) for line in lines]
    nb = int(val(lines[5].split("//")[0][1:]))  # the track count follows one leading character
    return value[0], value[2], value[3], [round(value[6 + i]) for i in range(nb)]


class Plan:
    def __init__(self, machine, scale, scale_file=None, overrides=None):
        self.laser = machine == "laser"
        self.af = scale == "Alder Fenn 20" and not scale_file
        s = dict(MACHINE_DEFAULTS, **(AF_DEFAULTS if self.af else KOLBY_DEFAULTS))
        if scale_file:  # a file scale leaves Ldecoupe and BassesAF as they were
            vit, talon, dist, self.notes = load_scale_file(scale_file)
            s.update(Vitcarton=repr(vit), Talon=repr(talon), Dist_notes=repr(dist))
        elif scale in ("Alder Fenn 20", "Kolby 27-29"):
            self.notes = ALDER_FENN if self.af else KOLBY
        else:
            raise SystemExit("unknown scale " + scale)
        s.update(overrides or {})
        self.s = s
        self.v = v = {k: val(x) for k, x in s.items()}
        self.vit = v["Vitcarton"]
        self.temps_pont = v["Lgponts"] * 1000 / self.vit
        self.temps_morceau = v["Dist_ponts"] * 1000 / self.vit
        self.ldecoupe = v["Ldecoupe"]
        self.talon_x = v["Talon"] - v["Ldecoupe"] / 2 if self.laser else v["Talon"]
        self.origine_x = v["OrigineX"] if self.laser else v["OrigineX_poin"]
        self.vitesse = s["VitesseF"] if self.laser else str(round(v["VitesseF_poin"]))
        self.pas = v["Dist_notes"]
        self.temps_poincon = v["L_poincon"] * 1000 / self.vit
        self.l_poincon = v["L_poincon"]
        self.basses = v["BassesAF"]

    # pairing: a NOOF closes the note last opened
    def note_lines(self, events):
        out, pending = [], ""
        for line in events:
            if line[:4] == "NOTE":
                pending = line[5:12] + " " + line[28:31]
            elif line[:4] == "NOOF":
                out.append(pending + " " + line[5:12])
                pending = ""
        out.sort()
        return out

    def pieces(self, events):
        fractionner = not (self.laser and self.v["Lgponts"] == 0)
        morceau = self.temps_morceau if self.laser else self.temps_poincon
        marge = round(self.temps_pont + 50) if self.laser else 0
        pont = self.temps_pont
        pieces = []
        self.out_of_scale = 0
        self.lost = {}  # note number -> [count, first start] of the notes no track plays
        for line in self.note_lines(events):
            start, note, end = val(line[0:7]), val(line[8:11]), val(line[12:19])
            if note not in self.notes:
                self.out_of_scale += 1
                count, first = self.lost.get(note, (0, start))
                self.lost[note] = (count + 1, min(first, start))
                continue
            piste = self.notes.index(note)
            if fractionner and end - start >= morceau:
                reste = end - start
                while reste > marge + morceau:
                    pieces.append((start, piste, start + morceau))
                    start += morceau + pont
                    reste -= morceau + pont
                pieces.append((start if self.laser else end - self.temps_poincon, piste, end))
            else:
                pieces.append((start, piste, end))
        # the piece lines hold whole milliseconds, rounded half away from zero
        lines = sorted("%07d %03d %07d" % (round_away(a), p, round_away(b)) for a, p, b in pieces)
        return [(int(l[0:7]), int(l[8:11]), int(l[12:19])) for l in lines]

    def position(self, piste):
        if not self.af:
            return self.talon_x + piste * self.pas
        decalage = (self.basses - self.ldecoupe) / 2 if self.laser else 0
        if piste <= 3:
            return self.talon_x - decalage + piste * 1.5 * self.pas
        return self.talon_x + 4.5 * self.pas + (piste - 3) * self.pas

    def holes(self, events, start_mark=0.0, end_mark=None):
        """The holes of the pieces that start at or after the start mark and
        before the end mark (no end mark: to the end of the song)."""
        out = []
        for start, piste, end in self.pieces(events):
            if start < math.floor(start_mark) or (end_mark is not None and start >= math.floor(end_mark)):
                continue
            x1 = self.position(piste)
            if self.laser:
                width = self.basses if (self.af and piste < 4) else self.ldecoupe
                out.append((x1, self.vit * start / 1000, x1 + width, end * self.vit / 1000))
            else:
                out.append((x1, self.vit * start / 1000 + self.l_poincon / 2))
        return out

    def fixed_lines(self, title, start_mark=0.0):
        first = (";Laser gcode of the file : " if self.laser else ";Punch gcode of the file : ") + title
        head = [first]
        if self.s["Gen_entete"].strip() == "1":
            ox = num(self.origine_x)
            head.append("$HX ;X origin search")
            if start_mark:
                y0 = str(math.floor(start_mark * self.vit / 1000))
                head.append("G92 X" + ox + " Y" + y0 + " Z-1 ;Homing position at " + ox
                            + " mm from X origin and at " + y0 + " mm from roll begining")
            else:
                head.append("G92 X" + ox + " Y0 Z-1 ;Homing position at " + ox + " mm from X origin")
        p = self.s["Laser_power"]
        if not self.laser:
            head.append("M3 S1000 F" + self.vitesse)
        elif self.s["Laser_mode"] == "M3":
            head.append("M3 S" + p + " ;Laser power " + p + ". M3 = constant power")
        else:
            head.append("M4 S" + p + " ; M4 = Adaptative power according to speed up to " + p + "max")
        return head, ["G0 M5 S0"]


def main(argv):
    ap = argparse.ArgumentParser(usage=__doc__)
    ap.add_argument("events", nargs="?")
    ap.add_argument("--machine", choices=["laser", "punch"], required=True)
    ap.add_argument("--scale", default="Kolby 27-29")
    ap.add_argument("--scale-file")
    ap.add_argument("--set", action="append", default=[])
    ap.add_argument("--program")
    a = ap.parse_args(argv)
    if a.events is None and a.program is None:
        ap.error("give EVENTS_FILE or --program TITLE")
    plan = Plan(a.machine, a.scale, a.scale_file, dict(kv.partition("=")[::2] for kv in a.set))
    if a.program is not None:
        head, tail = plan.fixed_lines(a.program)
        print("\n".join(head + ["@@"] + tail))
        return 0
    src = sys.stdin if a.events == "-" else open(a.events, encoding="latin-1")
    for h in plan.holes(src.read().split("\n")):
        print(" ".join(num(x) for x in h))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
