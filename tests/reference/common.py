"""Shared by the check scripts: MIDI bytes, running the CLI, song lists, a work folder."""

import os
import shutil
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True  # keep the source folder clean


def vlq(n):
    out = [n & 0x7F]
    while n > 0x7F:
        n >>= 7
        out.append(0x80 | (n & 0x7F))
    return bytes(reversed(out))


def hx(text):
    return bytes.fromhex(text.replace(" ", ""))


END = hx("00 FF2F00")


def meta(mtype, body):
    return bytes([0xFF, mtype]) + vlq(len(body)) + bytes(body)


def smf(fmt, tracks, division=96, header_len=6, header_extra=b"", lengths=None):
    """A file from raw track bodies; lengths overrides the chunk lengths."""
    out = bytearray(b"MThd" + header_len.to_bytes(4, "big") + fmt.to_bytes(2, "big")
                    + len(tracks).to_bytes(2, "big") + division.to_bytes(2, "big") + header_extra)
    for i, body in enumerate(tracks):
        out += b"MTrk" + (len(body) if lengths is None else lengths[i]).to_bytes(4, "big") + body
    return bytes(out)


def run(cmd, env=None):
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, env=env)
    return p.returncode, p.stdout, p.stderr


def songs(args):
    """The .mid files named, folders searched for them."""
    out = []
    for a in args:
        if os.path.isdir(a):
            out += sorted(os.path.join(a, f) for f in os.listdir(a) if f.endswith(".mid"))
        else:
            out.append(a)
    return out


class WorkFolder:
    """A temporary folder for the files of a check."""

    def __init__(self, prefix):
        self.path = tempfile.mkdtemp(prefix=prefix)

    def write(self, name, data):
        path = os.path.join(self.path, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as fh:
            fh.write(data)
        return path

    def close(self, keep=()):
        """Removes the folder, or when keep names files, every other file in it."""
        if not keep:
            shutil.rmtree(self.path, ignore_errors=True)
            return
        for root, _, files in os.walk(self.path):
            for f in files:
                if os.path.join(root, f) not in keep:
                    os.remove(os.path.join(root, f))
