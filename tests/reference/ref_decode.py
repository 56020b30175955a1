#!/usr/bin/env python3
"""Independent model of the MIDI decoder (event lines), standard library only.

Usage: ref_decode.py [--sustain] [--tempo BPM] FILE

Prints the event lines that `veltrin-cli decode FILE` prints.  On a corrupt
file it prints the lines made before the fault, writes the message to stderr
and exits with status 1.  Written from the description of the event-line
format, not from the C++ code, so that the two can be compared line by line.
"""

import argparse
import struct
import sys

NOTE_NAMES = ["C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"]
TEXT_KEYWORDS = {1: "TEXT", 2: "AUTH", 3: "TNAM", 4: "INST", 5: "LYRC", 6: "MARK", 7: "CUEP"}


def f32(x):
    """Round a Python float to the nearest single-precision value."""
    return struct.unpack("<f", struct.pack("<f", x))[0]


def field(value, width):
    """Fixed-width field: value (rounded half to even) + 10^width, first digit dropped."""
    return str(round(value) + 10 ** width)[1:]


class DecodeError(Exception):
    def __init__(self, code, message, offset=None):
        if offset is not None:
            message += "\r\n    Events processed until loc hex: " + format(offset, "X")
        super().__init__(message)
        self.code = code
        self.message = message


class Decoder:
    def __init__(self, data, path, forced_bpm=0, sustain=False):
        self.data, self.path, self.forced_bpm, self.sustain = data, path, forced_bpm, sustain
        self.lines = []
        self.latest_note = 0
        self.pos = self.event_pos = 0
        self.max_end = f32(0.0)
        self.numerator, self.denominator = 4, 4
        self.pedal = [False] * 17

    def read(self, n):
        if self.pos + n > len(self.data):
            raise DecodeError(1, "*** Midifile corrupt, unexpected EOF.", self.event_pos)
        self.pos += n
        return self.data[self.pos - n:self.pos]

    def byte(self):
        return self.read(1)[0]

    def be(self, n):
        return int.from_bytes(self.read(n), "big")

    def vlq(self):
        v = 0
        for _ in range(4):
            b = self.byte()
            v = (v << 7) | (b & 0x7F)
            if b < 0x80:
                return v
        raise DecodeError(2, "Midifile corrupt, deltatime invalid format.", self.event_pos)

    def set_mspt(self, tempo):
        self.mspt = f32(tempo / self.division / 1000)

    def ms_at(self, tick):
        return self.acc + self.mspt * (tick - self.tmap[self.cur][0])

    def advance(self):
        while self.cur + 1 < len(self.tmap) and self.tick >= self.tmap[self.cur + 1][0]:
            etick, etempo = self.tmap[self.cur + 1]
            for note in self.notes.values():  # a sounding note carries its time so far
                note[3] = f32(note[3] + self.mspt * (etick - note[0]))
                note[0] = etick
            self.acc = self.acc + self.mspt * (etick - self.tmap[self.cur][0])
            self.set_mspt(etempo)
            self.cur += 1

    def put(self, keyword, *values, width=5, text=None):
        line = "%s %s %s" % (keyword, field(self.ms_at(self.tick), 7), field(self.tick, 6))
        line += "".join(" " + field(v, width) for v in values)
        self.lines.append(line if text is None else line + " " + text)

    def write_note(self, ch, n, end_tick):
        start_tick, _, velocity, carried = self.notes.pop((ch, n))
        start_ms = round(self.ms_at(start_tick) - carried)
        end_ms = round(self.ms_at(end_tick))
        self.lines.append("NOTE %s %s %s %s %s %s %s%d" % (
            field(start_ms, 7), field(end_tick, 6), field(ch, 5), field(n, 5), field(end_ms - start_ms, 5),
            field(velocity, 5), NOTE_NAMES[n % 12], abs(n // 12 - 2)))
        self.lines.append("NOOF %s %s %s" % (field(end_ms, 7), field(end_tick, 6), field(ch, 5)))
        self.latest_note = max(self.latest_note, start_ms, end_ms)
        if end_ms > self.max_end:
            self.max_end = f32(end_ms)

    def note_on(self, ch, n, vel):
        self.notes.setdefault((ch, n), [self.tick, 0, f32(vel), 0.0])[1] += 1

    def note_off(self, ch, n):
        note = self.notes.get((ch, n))
        if note is None or note[1] < 1:
            return  # not sounding, or held only by the pedal (its key is already up)
        note[1] -= 1
        if note[1] < 1 and not self.pedal[ch]:
            self.write_note(ch, n, self.tick)

    def release_held(self, ch):
        for n in range(128):
            if self.notes.get((ch, n), (0, 1))[1] == 0:
                self.write_note(ch, n, self.tick)

    def run(self):
        if self.data[0:4] != b"MThd":
            raise DecodeError(5, "Midifile corrupt: header MThd not in file.")
        self.pos = 4  # a short header is reported at offset 0
        self.be(4)  # header length, not used
        fmt, ntracks, self.division = self.be(2), self.be(2), self.be(2)
        tempo0 = round(60 / self.forced_bpm * 1000000) if self.forced_bpm else 500000
        self.tmap = [(0, tempo0)]
        self.tick = 0
        for track in range(ntracks):
            if self.data[self.pos:self.pos + 4] != b"MTrk":
                raise DecodeError(6, "Midifile corrupt, header MTrk not in file.")
            self.event_pos = self.pos  # a short chunk header is reported at its "MTrk"
            self.read(8)  # the chunk length is not used: events run to the end-of-track event
            self.notes = {}  # (channel, note): [start tick, count, velocity, carried ms]
            self.tick = self.cur = 0
            self.acc = 0.0
            self.set_mspt(self.tmap[0][1])
            status = 0
            while True:
                self.event_pos = self.pos
                self.tick += self.vlq()
                self.advance()
                b = self.byte()
                first_data = None
                if b >= 0x80:
                    status = b
                elif 128 <= status <= 239:
                    first_data = b
                else:
                    raise DecodeError(3, "Midifile corrupt, running status error. ", self.event_pos)
                if status < 0xF0:
                    self.channel_event(status, self.byte() if first_data is None else first_data)
                elif status in (0xF0, 0xF7):
                    if status == 0xF7:  # a sysex packet is listed; both are skipped by length
                        self.put("F7XX")
                    self.read(self.vlq())
                elif status in (0xF1, 0xF3):
                    self.put("MQTR" if status == 0xF1 else "SNGS", self.byte())
                elif status == 0xF2:
                    a = self.byte()
                    self.put("SNGP", a + 128 * self.byte())
                elif status < 0xFF:
                    self.put("%02XXX" % status)
                elif self.meta(fmt == 1 and track > 0):
                    break
        if self.sustain:
            for ch in range(1, 17):
                if self.pedal[ch]:
                    self.release_held(ch)
        self.lines.append("ENDF 9999999")
        self.lines.append("HEAD ##10000  " + self.path + " " + field(self.max_end, 5))

    def channel_event(self, status, a):
        kind, ch = status & 0xF0, (status & 0x0F) + 1
        if kind in (0xC0, 0xD0):
            self.put("PRGC" if kind == 0xC0 else "CAFT", ch, a)
            return
        c = self.byte()
        if kind in (0x80, 0x90) and a > 127:
            pass  # a note number outside the tables (corrupt data byte): no note
        elif kind == 0x80 or (kind == 0x90 and c == 0):
            self.note_off(ch, a)
        elif kind == 0x90:
            self.note_on(ch, a, c)
        elif kind == 0xA0:
            self.put("KAFT", ch, a)
        elif kind == 0xB0:
            self.put("CONC", ch, a, c)
            if self.sustain and a == 64:
                self.pedal[ch] = c >= 64
                if c < 64:
                    self.release_held(ch)
        else:
            self.put("PBEN", ch, a + 128 * c)

    def meta(self, tempo_ignored):
        """One meta event; True when it ends the track."""
        mtype = self.byte()
        body = self.read(self.vlq())
        if mtype == 0x2F:
            return True
        if mtype == 0x00:
            self.put("SEQN", int.from_bytes(body, "big"))
        elif mtype in TEXT_KEYWORDS:
            self.put(TEXT_KEYWORDS[mtype], text=body.decode("latin-1"))
        elif mtype == 0x51 and not tempo_ignored:
            tempo = int.from_bytes(body[:3], "big")
            self.put("TEMP", tempo, width=7)
            if not self.forced_bpm:
                self.tmap.append((self.tick, tempo))
        elif mtype == 0x54:
            self.put("SMPT", *body[:5])
        elif mtype == 0x58:
            self.numerator = body[0]
            if body[1] <= 5:
                self.denominator = 1 << body[1]
            self.put("TIME", self.numerator, self.denominator, body[2], body[3])
        elif mtype == 0x59:
            self.put("KEYS", body[0], body[1])
        return False


def decode(data, path, forced_bpm=0, sustain=False):
    """(exit status, standard output, standard error) of the decode command."""
    dec = Decoder(data, path, forced_bpm, sustain)
    try:
        dec.run()
        rc, err = 0, ""
        if dec.latest_note > 9999999:
            rc = 1
            err = ("veltrin-cli decode: a note plays at %d ms, past the 7-digit time fields (9999999 ms, about "
                   "2 h 46 min): the times of the lines after it are wrong\n" % dec.latest_note)
    except DecodeError as error:
        rc, err = 1, error.message + "\n"
    return rc, "".join(line + "\n" for line in dec.lines).encode("latin-1"), err.encode("latin-1")


def main(argv):
    ap = argparse.ArgumentParser(usage=__doc__)
    ap.add_argument("file")
    ap.add_argument("--sustain", action="store_true")
    ap.add_argument("--tempo", type=int, default=0)
    a = ap.parse_args(argv)
    with open(a.file, "rb") as fh:
        rc, out, err = decode(fh.read(), a.file, a.tempo, a.sustain)
    sys.stdout.buffer.write(out)
    sys.stdout.flush()
    sys.stderr.buffer.write(err)
    return rc


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
