#!/usr/bin/env python3
"""Independent model of the MIDI decoder (event lines), standard library only.

Usage: ref_decode.py [--sustain] [--tempo BPM] FILE

Prints the event lines that `veltrin-cli decode FILE` prints.  On a corrupt
file it prints the lines made before the fault, writes the message to stderr
and exits with status 1.

Written from the description of the event-line format, not from the C++ code,
so that the two can be compared line by line.
"""

import struct
import sys

NOTE_NAMES = ["C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"]
TEXT_KEYWORDS = {1: "TEXT", 2: "AUTH", 3: "TNAM", 4: "INST", 5: "LYRC", 6: "MARK", 7: "CUEP"}
SENTINEL = 9999999


def f32(x):
    """Round a Python float to the nearest single-precision value."""
    return struct.unpack("<f", struct.pack("<f", x))[0]


def field(value, width):
    """Fixed-width field: value (rounded half to even) + 10^width, first digit dropped."""
    v = round(value)
    return str(v + 10 ** width)[1:]


class DecodeError(Exception):
    def __init__(self, code, message):
        super().__init__(message)
        self.code = code
        self.message = message


def loc_error(code, first, offset):
    return DecodeError(code, first + "\r\n" + "    Events processed until loc hex: " + format(offset, "X"))


def eof_error(offset):
    return loc_error(1, "*** Midifile corrupt, unexpected EOF.", offset)


class Decoder:
    def __init__(self, data, path, forced_bpm=0, sustain=False):
        self.data = data
        self.path = path
        self.forced_bpm = forced_bpm
        self.sustain = sustain
        self.lines = []
        self.pos = 0
        self.event_pos = 0
        self.max_end = f32(0.0)
        self.denominator = 4
        self.numerator = 4
        self.pedal = [False] * 17

    # --- byte access -------------------------------------------------------
    def byte(self):
        if self.pos >= len(self.data):
            raise eof_error(self.event_pos)
        b = self.data[self.pos]
        self.pos += 1
        return b

    def be(self, n):
        v = 0
        for _ in range(n):
            v = (v << 8) | self.byte()
        return v

    def vlq(self):
        v = 0
        for i in range(4):
            b = self.byte()
            v = (v << 7) | (b & 0x7F)
            if b < 0x80:
                return v
        raise loc_error(2, "Midifile corrupt, deltatime invalid format.", self.event_pos)

    # --- timing --------------------------------------------------------------
    def set_mspt(self, tempo):
        self.mspt = f32(tempo / self.division / 1000)

    def ms_at(self, tick):
        return self.acc + self.mspt * (tick - self.tmap[self.cur][0])

    def advance(self):
        while self.cur + 1 < len(self.tmap) and self.tick >= self.tmap[self.cur + 1][0]:
            etick, etempo = self.tmap[self.cur + 1]
            for ch, n in self.sounding:
                self.carried[ch][n] = f32(self.carried[ch][n] + self.mspt * (etick - self.start[ch][n]))
                self.start[ch][n] = etick
            self.acc = self.acc + self.mspt * (etick - self.tmap[self.cur][0])
            self.set_mspt(etempo)
            self.cur += 1

    # --- notes ---------------------------------------------------------------
    def write_note(self, ch, n, end_tick):
        start_ms = round(self.ms_at(self.start[ch][n]) - self.carried[ch][n])
        end_ms = round(self.ms_at(end_tick))
        dur = end_ms - start_ms
        name = NOTE_NAMES[n % 12] + str(abs(n // 12 - 2))
        self.lines.append("NOTE %s %s %s %s %s %s %s" % (
            field(start_ms, 7), field(end_tick, 6), field(ch, 5), field(n, 5),
            field(dur, 5), field(self.velocity[ch][n], 5), name))
        self.lines.append("NOOF %s %s %s" % (field(end_ms, 7), field(end_tick, 6), field(ch, 5)))
        self.start[ch][n] = -1
        self.sounding.discard((ch, n))
        self.carried[ch][n] = 0.0
        self.count[ch][n] = 0
        if end_ms > self.max_end:
            self.max_end = f32(end_ms)

    def note_on(self, ch, n, vel):
        if self.start[ch][n] == -1:
            self.start[ch][n] = self.tick
            self.sounding.add((ch, n))
            self.velocity[ch][n] = f32(vel)
        self.count[ch][n] += 1

    def note_off(self, ch, n):
        if self.start[ch][n] == -1 or self.count[ch][n] < 1:
            # a note that is not sounding, or one that only the pedal still
            # holds (its key is already up): a stray end, ignored
            return
        self.count[ch][n] -= 1
        if self.count[ch][n] < 1 and not self.pedal[ch]:
            self.write_note(ch, n, self.tick)

    def release_held(self, ch):
        for n in range(128):
            if (ch, n) in self.sounding and self.count[ch][n] == 0:
                self.write_note(ch, n, self.tick)

    # --- the file ------------------------------------------------------------
    def head(self, prefix):
        return "%s %s %s" % (prefix, field(self.ms_at(self.tick), 7), field(self.tick, 6))

    def run(self):
        d = self.data
        if d[0:4] != b"MThd":
            raise DecodeError(5, "Midifile corrupt: header MThd not in file.")
        self.pos = 4
        self.event_pos = 0  # no event yet: a short header is reported at offset 0
        self.be(4)  # header length
        fmt = self.be(2)
        ntracks = self.be(2)
        self.division = self.be(2)
        if fmt == 1:
            first, last = 0, ntracks - 1
        else:
            first, last = 1, ntracks
        tempo0 = 500000
        if self.forced_bpm:
            tempo0 = round(60 / self.forced_bpm * 1000000)
        self.tmap = [(0, tempo0)]
        self.tick = 0
        for track in range(first, last + 1):
            if d[self.pos:self.pos + 4] != b"MTrk":
                raise DecodeError(6, "Midifile corrupt, header MTrk not in file.")
            self.event_pos = self.pos  # a short chunk header is reported at its "MTrk"
            self.pos += 4
            self.be(4)  # the chunk length: events are read until the end-of-track event
            self.start = [[-1] * 128 for _ in range(17)]
            self.count = [[0] * 128 for _ in range(17)]
            self.velocity = [[0.0] * 128 for _ in range(17)]
            self.carried = [[0.0] * 128 for _ in range(17)]
            self.sounding = set()
            self.tick = 0
            self.cur = 0
            self.acc = 0.0
            self.set_mspt(self.tmap[0][1])
            status = 0
            while True:
                self.event_pos = self.pos
                self.tick += self.vlq()
                self.advance()
                b = self.byte()
                if b >= 0x80:
                    status = b
                    first_data = None
                else:
                    if not (128 <= status <= 239):
                        raise loc_error(3, "Midifile corrupt, running status error. ", self.event_pos)
                    first_data = b
                if status < 0xF0:
                    kind = status & 0xF0
                    ch = (status & 0x0F) + 1
                    a = first_data if first_data is not None else self.byte()
                    if kind in (0xC0, 0xD0):
                        if kind == 0xC0:
                            self.lines.append(self.head("PRGC") + " " + field(ch, 5) + " " + field(a, 5))
                        else:
                            self.lines.append(self.head("CAFT") + " " + field(ch, 5) + " " + field(a, 5))
                        continue
                    c = self.byte()
                    if kind in (0x80, 0x90) and a > 127:
                        pass  # a note number outside the tables (corrupt data byte): no note
                    elif kind == 0x80 or (kind == 0x90 and c == 0):
                        self.note_off(ch, a)
                    elif kind == 0x90:
                        self.note_on(ch, a, c)
                    elif kind == 0xA0:
                        self.lines.append(self.head("KAFT") + " " + field(ch, 5) + " " + field(a, 5))
                    elif kind == 0xB0:
                        self.lines.append(self.head("CONC") + " " + field(ch, 5) + " " + field(a, 5) + " " + field(c, 5))
                        if self.sustain and a == 64:
                            if c >= 64:
                                self.pedal[ch] = True
                            else:
                                self.pedal[ch] = False
                                self.release_held(ch)
                    else:  # 0xE0
                        self.lines.append(self.head("PBEN") + " " + field(ch, 5) + " " + field(a + 128 * c, 5))
                elif status == 0xF0:
                    n = self.vlq()
                    self.skip(n)
                elif status == 0xF7:
                    # the continuation form of system exclusive: a line, then its
                    # length-prefixed bytes are skipped as for 0xF0
                    self.lines.append(self.head("F7XX"))
                    n = self.vlq()
                    self.skip(n)
                elif status == 0xF1:
                    self.lines.append(self.head("MQTR") + " " + field(self.byte(), 5))
                elif status == 0xF2:
                    a = self.byte()
                    c = self.byte()
                    self.lines.append(self.head("SNGP") + " " + field(a + 128 * c, 5))
                elif status == 0xF3:
                    self.lines.append(self.head("SNGS") + " " + field(self.byte(), 5))
                elif status < 0xFF:
                    self.lines.append(self.head("%02XXX" % status))
                else:
                    if self.meta(fmt, track == first):
                        break
        if self.sustain:
            for ch in range(1, 17):
                if self.pedal[ch]:
                    self.release_held(ch)
        self.lines.append("ENDF 9999999")
        self.lines.append("HEAD ##10000  " + self.path + " " + field(self.max_end, 5))

    def skip(self, n):
        if self.pos + n > len(self.data):
            self.pos = len(self.data)
            raise eof_error(self.event_pos)
        self.pos += n

    def read_bytes(self, n):
        if self.pos + n > len(self.data):
            self.pos = len(self.data)
            raise eof_error(self.event_pos)
        b = self.data[self.pos:self.pos + n]
        self.pos += n
        return b

    def meta(self, fmt, first_track):
        """Handle one meta event; True when it ends the track."""
        mtype = self.byte()
        n = self.vlq()
        body = self.read_bytes(n)
        if mtype == 0x2F:
            return True
        if mtype == 0x00:
            self.lines.append(self.head("SEQN") + " " + field(int.from_bytes(body, "big"), 5))
        elif mtype in TEXT_KEYWORDS:
            self.lines.append(self.head(TEXT_KEYWORDS[mtype]) + " " + body.decode("latin-1"))
        elif mtype == 0x51:
            if fmt == 1 and not first_track:
                return False
            tempo = int.from_bytes(body[:3], "big")
            self.lines.append(self.head("TEMP") + " " + field(tempo, 7))
            if not self.forced_bpm:
                self.tmap.append((self.tick, tempo))
        elif mtype == 0x54:
            self.lines.append(self.head("SMPT") + "".join(" " + field(x, 5) for x in body[:5]))
        elif mtype == 0x58:
            self.numerator = body[0]
            if body[1] <= 5:
                self.denominator = 1 << body[1]
            self.lines.append(self.head("TIME") + " %s %s %s %s" % (
                field(self.numerator, 5), field(self.denominator, 5), field(body[2], 5), field(body[3], 5)))
        elif mtype == 0x59:
            self.lines.append(self.head("KEYS") + " " + field(body[0], 5) + " " + field(body[1], 5))
        return False


def main(argv):
    sustain = False
    bpm = 0
    args = []
    i = 0
    while i < len(argv):
        if argv[i] == "--sustain":
            sustain = True
        elif argv[i] == "--tempo":
            i += 1
            bpm = int(argv[i])
        else:
            args.append(argv[i])
        i += 1
    if len(args) != 1:
        sys.stderr.write(__doc__)
        return 2
    path = args[0]
    with open(path, "rb") as fh:
        data = fh.read()
    dec = Decoder(data, path, bpm, sustain)
    out = sys.stdout.buffer
    try:
        dec.run()
    except DecodeError as err:
        out.write("".join(line + "\n" for line in dec.lines).encode("latin-1"))
        out.flush()
        sys.stderr.write(err.message + "\n")
        return 1
    out.write("".join(line + "\n" for line in dec.lines).encode("latin-1"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
