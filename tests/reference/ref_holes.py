#!/usr/bin/env python3
"""Independent model of the hole set of a G-code program, standard library only.

Usage: ref_holes.py EVENTS_FILE --machine laser|punch
                    [--scale "Kolby 27-29"|"Alder Fenn 20"|--scale-file PATH]
                    [--set KEY=VALUE ...]

EVENTS_FILE holds the event lines of a song (what `veltrin-cli decode` prints;
"-" reads standard input).  Every setting starts at its default value; --set
changes one machine setting (VitesseF, OrigineX, VitesseF_poin, OrigineX_poin,
Laser_power, Laser_mode, Lgponts, Dist_ponts, L_poincon, Gen_entete, and the
scale values Vitcarton, Ldecoupe, Dist_notes, Talon, BassesAF).

Prints the holes, one per line, as the program writes their numbers:
laser  "X1 Y1 X2 Y2" (the corners of the rectangle), punch "X Y" (the strike).
With --program it prints instead the fixed lines of the program for these
settings: the title, header and power lines, then "@@", then the last line.

The travel order of the holes is not modelled: the holes come out in the order
of the plan (by start time, then track, then end time).
"""

import math
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


def val(text):
    """Leading-number reading: blanks skipped, "." decimal point, 0 when there is no number."""
    s = text.lstrip(" \t")
    i = 0
    if i < len(s) and s[i] in "+-":
        i += 1
    digits = 0
    while i < len(s) and s[i].isdigit():
        i += 1
        digits += 1
    if i < len(s) and s[i] == ".":
        i += 1
        while i < len(s) and s[i].isdigit():
            i += 1
            digits += 1
    if digits == 0:
        return 0.0
    # an exponent part, when one follows
    j = i
    if j < len(s) and s[j] in "eE":
        k = j + 1
        if k < len(s) and s[k] in "+-":
            k += 1
        if k < len(s) and s[k].isdigit():
            while k < len(s) and s[k].isdigit():
                k += 1
            i = k
    return float(s[:i])


def round_even(x):
    return int(round(x))


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
    k = 0
    while k < len(lines) and lines[k][:2] == "//":
        k += 1

    def value(line, skip_first=False):
        cut = line.find("//")
        text = line if cut < 0 else line[:cut]
        if skip_first:
            text = text[1:]
        return val(text)

    vit = value(lines[k])
    talon = value(lines[k + 2])
    dist = value(lines[k + 3])
    nb = int(value(lines[k + 5], skip_first=True))
    notes = [round_even(value(lines[k + 6 + i])) for i in range(nb)]
    return vit, talon, dist, notes


class Plan:
    def __init__(self, machine, scale, scale_file=None, overrides=None):
        self.laser = machine == "laser"
        s = dict(MACHINE_DEFAULTS)
        self.af = False
        if scale_file:
            s.update(KOLBY_DEFAULTS)  # a file scale leaves Ldecoupe and BassesAF as they were
            vit, talon, dist, notes = load_scale_file(scale_file)
            s["Vitcarton"] = repr(vit)
            s["Talon"] = repr(talon)
            s["Dist_notes"] = repr(dist)
            self.notes = notes
        elif scale == "Alder Fenn 20":
            s.update(AF_DEFAULTS)
            self.af = True
            self.notes = ALDER_FENN
        elif scale == "Kolby 27-29":
            s.update(KOLBY_DEFAULTS)
            self.notes = KOLBY
        else:
            raise SystemExit("unknown scale " + scale)
        s.update(overrides or {})
        self.s = s
        v = {k: val(x) for k, x in s.items()}
        self.v = v
        self.vit = v["Vitcarton"]
        self.temps_pont = v["Lgponts"] * 1000 / self.vit
        self.temps_morceau = v["Dist_ponts"] * 1000 / self.vit
        self.ldecoupe = v["Ldecoupe"]
        self.talon_x = v["Talon"] - v["Ldecoupe"] / 2 if self.laser else v["Talon"]
        self.origine_x = v["OrigineX"] if self.laser else v["OrigineX_poin"]
        self.vitesse = s["VitesseF"] if self.laser else str(round_even(v["VitesseF_poin"]))
        self.pas = v["Dist_notes"]
        self.temps_poincon = v["L_poincon"] * 1000 / self.vit
        self.l_poincon = v["L_poincon"]
        self.basses = v["BassesAF"]

    # pairing: a NOOF closes the note last opened
    def note_lines(self, events):
        out = []
        pending = ""
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
        morceau = self.temps_morceau
        marge = 0
        if self.laser:
            marge = round_even(self.temps_pont + 50)
        else:
            morceau = self.temps_poincon
        pont = self.temps_pont
        pieces = []
        self.out_of_scale = 0
        for line in self.note_lines(events):
            start = val(line[0:7])
            end = val(line[12:19])
            duree = end - start
            note = val(line[8:11])
            try:
                piste = self.notes.index(note)
            except ValueError:
                self.out_of_scale += 1
                continue
            if fractionner and duree >= morceau:
                reste = duree
                while reste > marge + morceau:
                    pieces.append((start, piste, start + morceau))
                    start += morceau + pont
                    reste -= morceau + pont
                if self.laser:
                    pieces.append((start, piste, end))
                else:
                    pieces.append((end - self.temps_poincon, piste, end))
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
            if start < math.floor(start_mark):
                continue
            if end_mark is not None and start >= math.floor(end_mark):
                continue
            x1 = self.position(piste)
            if self.laser:
                y1 = self.vit * start / 1000
                x2 = x1 + self.basses if (self.af and piste < 4) else x1 + self.ldecoupe
                y2 = end * self.vit / 1000
                out.append((x1, y1, x2, y2))
            else:
                y1 = self.vit * start / 1000 + self.l_poincon / 2
                out.append((x1, y1))
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
    machine, scale, scale_file, program = None, "Kolby 27-29", None, None
    overrides = {}
    args = []
    i = 0
    while i < len(argv):
        a = argv[i]
        if a == "--machine":
            machine = argv[i + 1]; i += 1
        elif a == "--scale":
            scale = argv[i + 1]; i += 1
        elif a == "--scale-file":
            scale_file = argv[i + 1]; i += 1
        elif a == "--set":
            k, _, v = argv[i + 1].partition("="); overrides[k] = v; i += 1
        elif a == "--program":
            program = argv[i + 1]; i += 1
        else:
            args.append(a)
        i += 1
    if machine not in ("laser", "punch") or (len(args) != 1 and program is None):
        sys.stderr.write(__doc__)
        return 2
    plan = Plan(machine, scale, scale_file, overrides)
    if program is not None:
        head, tail = plan.fixed_lines(program)
        print("\n".join(head + ["@@"] + tail))
        return 0
    src = sys.stdin if args[0] == "-" else open(args[0], encoding="latin-1")
    events = src.read().split("\n")
    for h in plan.holes(events):
        print(" ".join(num(x) for x in h))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
