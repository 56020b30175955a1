#!/usr/bin/env python3
"""Independent model of the whole program that `veltrin-cli convert` writes, standard library only.

Usage: ref_program.py EVENTS_FILE --machine laser|punch --title TITLE
                      [--scale NAME | --scale-file PATH] [--set KEY=VALUE ...]
                      [--start-mark MS] [--end-mark MS] [--no-width-search]
                      [--out FILE] [--marks-out FILE]

EVENTS_FILE holds the event lines of a song (what `veltrin-cli decode` prints; "-"
reads standard input); every setting starts at its default value.  Prints the log
of the conversion (import, width search, travel order, report, then one report per
mark set) and writes the program (and the program between the marks) when asked.

On top of ref_holes.py (settings, plan, pieces, track positions) this models the
travel order (bands, Ordonne_bande, distF), the best-width search and the writer
line by line.  Readings taken where the description leaves room:
  - derniere_piste (track of the last piece of the previous band) is a field of the
    converter that keeps its value from one generation to the next, 0 at start; the
    first band of a generation is oriented against the value left by the previous one
    (including the silent generations of the width search).  --fresh-track makes it 0
    at the start of every generation instead.
  - the width search tries 1..30 mm in order, then the current Fourchette (unless it
    is one of them); smallest distance_totale wins, the smaller width on a tie.
  - the remembered previous point of Ordonne_bande is the last piece copied into the
    band's visiting order (cleared: track 0 at time 0 at the start of each band).
  - a group copied in descending time order is the ascending group reversed.
  - "Travel optimizing " & Fourchette text & "(Width : " & temps_fourchette & ")".
  - the title in the first line keeps printable ASCII without "?", "!" and "~"
    (other characters are dropped); the file names keep the song's own title.
  - vitesse_avance is rounded to a whole number (half to even) for the laser too: the
    feed rate is written as that integer, power values as the text of their field.
  - the estimated duration is rounded to the nearest second (half up) and wraps at a day.
  - the width written into Fourchette by the search does not trigger a further
    generation of its own (only the import's Genere_GCode reports).
  - after each report, when notes are out of the scale, one line names them (see
    Converter.lost_notes) and an empty line follows.
"""

import argparse
import collections
import decimal
import math
import os
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ref_holes  # noqa: E402
from ref_holes import num, val  # noqa: E402

UNSET_END = 500000.0
# How often the model took the turns that a wrong reading would take otherwise:
# the checks print it, so a set of songs that never reaches a rule shows.
STATS = collections.Counter()
EXTRA_DEFAULTS = {"Fourchette": "7", "duree_metre_laser": "999", "duree_trou_poincon": "999"}


def half_even(x):
    """Whole number, half to even (16-bit roundings of the plan)."""
    return int(round(x))


def fixed_point(x, decimals, int_digits=1):
    """Fixed-point text of the value's 15-digit decimal form, half away from zero."""
    q = decimal.Decimal("%.15g" % x).quantize(decimal.Decimal(1).scaleb(-decimals), decimal.ROUND_HALF_UP)
    text = str(q)
    sign = "-" if text.startswith("-") else ""
    whole, _, frac = text.lstrip("-").partition(".")
    return sign + whole.zfill(int_digits) + "." + frac


def clock(seconds):
    """hh:mm:ss of a duration, nearest second, wrapping at a day."""
    s = int(math.floor(seconds + 0.5)) % 86400
    if s != int(math.floor(seconds)) % 86400:
        STATS["duration rounded up"] += 1
    return "%02d:%02d:%02d" % (s // 3600, s // 60 % 60, s % 60)


class Converter:
    """The converter's state across generations of one song."""

    def __init__(self, plan, title, fresh_track=False, separator="."):
        self.plan = plan
        self.separator = separator  # decimal separator of the report (the user's locale)
        # the title goes into a comment sent to the controller: printable ASCII only,
        # and none of the characters that Grbl takes as real-time commands
        self.title = "".join(c for c in title if " " <= c <= "~" and c not in "?!~")
        self.fresh_track = fresh_track
        self.derniere_piste = 0
        self.finale = []
        self.pieces = []
        self.out_of_scale = 0
        self.s = plan.s  # the settings as text
        v = plan.v
        self.vit = plan.vit
        self.laser = plan.laser
        self.pas = v["Dist_notes"]
        self.talon_x = plan.talon_x
        # vitesse_avance is a whole number for both machines (the feed rate written is that number)
        self.vitesse = half_even(v["VitesseF"] if self.laser else v["VitesseF_poin"])

    # --- travel order -------------------------------------------------------------
    def dist_f(self, a, b):
        """Squared distance of two start points; a piece is (track, start, end)."""
        xa, xb = self.pas * a[0] + self.talon_x, self.pas * b[0] + self.talon_x
        ya, yb = self.vit * a[1] / 1000, self.vit * b[1] / 1000
        return (xa - xb) ** 2 + (ya - yb) ** 2

    @staticmethod
    def ordonne_bande(band, sens, dist_f):
        """band: sorted (track, start, end); sens True walks the tracks downwards."""
        groups = []
        for piece in band:
            if groups and groups[-1][0][0] == piece[0]:
                groups[-1].append(piece)
            else:
                groups.append([piece])
        if sens:
            groups.reverse()
        out, previous = [], (0, 0, 0)
        STATS["band walked downwards" if sens else "band walked upwards"] += 1
        for g in groups:
            if len(g) > 1:
                d_first, d_last = dist_f(previous, g[0]), dist_f(previous, g[-1])
                STATS["track group of several pieces"] += 1
                if d_first == d_last:
                    STATS["track group at equal distances"] += 1
                if d_first > d_last:
                    STATS["track group taken backwards"] += 1
                    if any(a[1] == b[1] and a[2] != b[2] for a, b in zip(g, g[1:])):
                        STATS["backward group with one start twice"] += 1
                    g = list(reversed(g))
            out += g
            previous = out[-1]
        return out

    def optimise(self, pieces, temps_fourchette):
        """pieces: (start, track, end) in plan order; returns them in travel order."""
        if self.fresh_track:
            self.derniere_piste = 0
        finale, band = [], []
        debut_bande, seen = 0, False

        def close():
            sorted_band = sorted((t, s, e) for s, t, e in band)
            first, last = sorted_band[0][0], sorted_band[-1][0]
            sens = abs(first - self.derniere_piste) > abs(last - self.derniere_piste)
            for t, s, e in self.ordonne_bande(sorted_band, sens, self.dist_f):
                finale.append((s, t, e))
            self.derniere_piste = finale[-1][1]

        for start, track, end in pieces:
            if seen and start == debut_bande + temps_fourchette:
                STATS["start on the band edge"] += 1
            if track > 30:
                STATS["track above 30"] += 1
            if seen and start > debut_bande + temps_fourchette:
                close()
                band = []
                debut_bande = start
            band.append((start, track, end))
            seen = True
        if band:
            if len(finale) == 0 and len(band) > 1:
                STATS["song in one band"] += 1
            close()
        return finale

    # --- writer -------------------------------------------------------------------
    def write(self, finale, start_mark=0.0, end_mark=UNSET_END, search=False):
        """Returns (program lines or None, totals dict)."""
        p, s, laser, vit = self.plan, self.s, self.laser, self.vit
        lines = []
        if not search:
            lines.append((";Laser gcode of the file : " if laser else ";Punch gcode of the file : ") + self.title)
            if s["Gen_entete"].strip() == "1" or val(s["Gen_entete"]) == 1:
                ox = num(p.origine_x)
                lines.append("$HX ;X origin search")
                if start_mark:
                    y0 = str(math.floor(start_mark * vit / 1000))
                    lines.append("G92 X" + ox + " Y" + y0 + " Z-1 ;Homing position at " + ox
                                 + " mm from X origin and at " + y0 + " mm from roll begining")
                else:
                    lines.append("G92 X" + ox + " Y0 Z-1 ;Homing position at " + ox + " mm from X origin")
            power = s["Laser_power"]
            if not laser:
                lines.append("M3 S1000 F%d" % self.vitesse)
            elif s["Laser_mode"] == "M3":
                lines.append("M3 S" + power + " ;Laser power " + power + ". M3 = constant power")
            else:
                lines.append("M4 S" + power + " ; M4 = Adaptative power according to speed up to " + power + "max")
        t = dict(nb_frappes=0, distance_totale=0.0, longueur_coupe=0.0, y_max=0.0, last_y1=None)
        px = py = 0.0
        lo, hi = math.floor(start_mark), (math.floor(end_mark) if end_mark != UNSET_END else None)
        f = " F%d" % self.vitesse
        for start, track, end in finale:
            if not (lo <= start and (hi is None or start < hi)):
                continue
            x1 = p.position(track)
            if laser:
                y1 = vit * start / 1000
                x2 = x1 + (p.basses if (p.af and track < 4) else p.ldecoupe)
                y2 = end * vit / 1000
                if not search:
                    lines += ["G0 X%s Y%s" % (num(x1), num(y1)), "G1 X" + num(x2) + f, "G1 Y" + num(y2) + f,
                              "G1 X" + num(x1) + f, "G1 Y" + num(y1) + f]
                t["longueur_coupe"] += 2 * (y2 - y1) + 2 * p.ldecoupe
                t["y_max"] = max(t["y_max"], y2)
            else:
                y1 = vit * start / 1000 + p.l_poincon / 2
                if not search:
                    lines += ["G0 X%s Y%s" % (num(x1), num(y1)), "G1 Z1" if t["nb_frappes"] % 2 == 0 else "G1 Z-1"]
                t["nb_frappes"] += 1
                t["y_max"] = max(t["y_max"], y1)
            t["distance_totale"] += math.sqrt((x1 - px) ** 2 + (y1 - py) ** 2)
            px, py = x1, y1
            t["last_y1"] = y1
        if search:
            return None, t
        lines.append("G0 M5 S0")
        return lines, t

    def report(self, t, start_mark=0.0, end_mark=UNSET_END):
        p, laser, vit = self.plan, self.laser, self.vit
        out = []

        def fixed(x, decimals, int_digits=1):
            return fixed_point(x, decimals, int_digits).replace(".", self.separator)

        if laser:
            out.append("   - Cuttings length : " + fixed(t["longueur_coupe"] / 1000, 2) + " m")
            out.append("   - Overall length between holes : " + fixed(t["distance_totale"] / 1000, 2) + " m")
        else:
            out.append("   - Overall distances : " + fixed(t["distance_totale"] / 1000, 2) + " m")
            out.append("   - Number of punch strikes : %d" % t["nb_frappes"])
        n = self.out_of_scale
        if n > 0:
            out.append("ATTENTION : ")
            out.append("---> " + " %d" % n + (" note is not in the organ scale" if n == 1
                                               else " notes are not in the organ scale"))
        if start_mark > 0:
            if end_mark == UNSET_END:
                y_fin = t["last_y1"] if t["last_y1"] is not None else 0.0
            else:
                y_fin = vit * end_mark / 1000
            length = (y_fin - vit * start_mark / 1000) / 1000
        else:
            length = t["y_max"] / 1000
        if not laser:
            length += p.l_poincon / 2000
        out.append("Roll length : " + (fixed(length, 3, 2) if length > 10 else fixed(length, 3)) + " m")
        if laser:
            learned = val(self.s["duree_metre_laser"])
            total = t["longueur_coupe"] + t["distance_totale"]
            d = learned * total if learned != 999 else total / self.vitesse * 60
        else:
            learned = val(self.s["duree_trou_poincon"])
            d = learned * t["nb_frappes"] if learned != 999 else t["distance_totale"] / self.vitesse * 1.5 * 60
        out.append("Estimated punch duration : " + clock(d))
        out += ["Ready to punch", ""]
        return out

    # --- the whole conversion -----------------------------------------------------
    def temps_fourchette(self, width_mm):
        return half_even(width_mm * 1000 / self.vit)

    def generate(self, fourchette_text, search=False):
        """Genere_GCode(false, false) on the plan made once per song (it does not depend
        on the band width): travel order, totals and, unless searching, the program."""
        self.finale = self.optimise(self.pieces, self.temps_fourchette(val(fourchette_text)))
        return self.write(self.finale, search=search)

    def width_search(self, current_text):
        current = val(current_text)
        candidates = list(range(1, 31)) + ([] if current in range(1, 31) else [current])
        best = None
        for c in candidates:
            _, t = self.generate(num(c), search=True)
            key = (t["distance_totale"], c)
            if best is not None and key[0] == best[0]:
                STATS["width search tie"] += 1
            if best is None or key < best:
                best = key
        if best[1] not in range(1, 31):
            STATS["current width chosen outside 1..30"] += 1
        return num(best[1])

    def convert(self, events, width_search=True, start_mark=None, end_mark=None):
        """Returns (log lines, full program lines, between-marks program lines or None)."""
        self.pieces = self.plan.pieces(events)
        self.out_of_scale = self.plan.out_of_scale
        fourchette = self.s.get("Fourchette", "7")
        log = ["Gcode generation for laser perforator" if self.laser else "Gcode generation for punch perforator",
               "Midi file de-assembling"]
        if width_search:
            log.append("Seeking for best optimizing width ")
            fourchette = self.width_search(fourchette)
        tf = self.temps_fourchette(val(fourchette))
        log.append("Travel optimizing " + fourchette + "(Width : %d)" % tf)
        program, t = self.generate(fourchette)
        between = None
        if start_mark is None and end_mark is None:
            log += self.report(t) + self.no_hole(t) + self.lost_notes()
            return log, program, between
        # with a mark, only the program between the marks is reported (both marks: written once)
        smark = start_mark if start_mark is not None else 0.0
        emark = end_mark if end_mark is not None else UNSET_END
        log.append("Gcode writing between marks")
        between, t = self.write(self.finale, smark, emark)
        log += self.report(t, smark, emark) + self.no_hole(t, smark > 0 or emark != UNSET_END) + self.lost_notes()
        return log, program, between

    def lost_notes(self):
        """After the report: the notes no track plays by name (middle C, 60, is C3), lowest
        first, with their count and the first one's time (m:ss.t, tenths rounded down)."""
        lost = self.plan.lost
        if not lost:
            return []
        names = ["C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"]

        def when(ms):
            tenths = int(ms // 100)
            return "%d:%02d.%d" % (tenths // 600, tenths // 10 % 60, tenths % 10)

        parts = ["%s%d \u00d7%d from %s" % (names[int(n) % 12], int(n) // 12 - 2, c, when(f))
                 for n, (c, f) in sorted(lost.items())]
        return ["Notes outside the organ scale : " + ", ".join(parts), ""]

    @staticmethod
    def no_hole(t, between_marks=False):
        if t["last_y1"] is not None:
            return []
        return ["Warning: No hole to cut: no note of the song " + ("between the marks " if between_marks else "") +
                "lies in the organ scale; the program only moves the machine"]


def main(argv):
    ap = argparse.ArgumentParser(usage=__doc__)
    ap.add_argument("events")
    ap.add_argument("--machine", choices=["laser", "punch"], required=True)
    ap.add_argument("--title", required=True)
    ap.add_argument("--scale", default="Kolby 27-29")
    ap.add_argument("--scale-file")
    ap.add_argument("--set", action="append", default=[])
    ap.add_argument("--start-mark", type=float)
    ap.add_argument("--end-mark", type=float)
    ap.add_argument("--no-width-search", action="store_true")
    ap.add_argument("--fresh-track", action="store_true")
    ap.add_argument("--out")
    ap.add_argument("--marks-out")
    a = ap.parse_args(argv)
    sets = dict(EXTRA_DEFAULTS, **dict(kv.partition("=")[::2] for kv in a.set))
    plan = ref_holes.Plan(a.machine, a.scale, a.scale_file, sets)
    src = sys.stdin if a.events == "-" else open(a.events, encoding="latin-1")
    conv = Converter(plan, a.title, a.fresh_track)
    log, program, between = conv.convert(src.read().split("\n"), not a.no_width_search, a.start_mark, a.end_mark)
    print("\n".join(log))
    for path, lines in ((a.out, program), (a.marks_out, between)):
        if path and lines is not None:
            with open(path, "wb") as fh:
                fh.write("".join(l + "\r\n" for l in lines).encode("latin-1"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
