#!/usr/bin/env python3
"""Writes a capture of well-formed and mangled tovrin datagrams, from a seed,
to show that no input makes the dissector raise a Lua error or tovrin-pcap
fail: cut at every length, bytes flipped, flags and numbers at random, control
types and length fields at random, fragments out of order.
usage: make_noise.py SEED COUNT OUT"""
import random
import struct
import sys

sys.path.insert(0, __import__("os").path.dirname(__file__))
from make_malformed import AP, CTL, REG, ctrl, dgram, enc, frame, plain  # noqa: E402


def seeds():
    """Well-formed datagrams of every kind, each with its sender."""
    big = plain(105, 102, bytes(random.randrange(256) for _ in range(2500)))
    out = [(AP, dgram(0xA0, REG)), (CTL, dgram(0x80, REG)),
           (AP, dgram(0xA0, ctrl(0x20, 36, bytes(32)))), (CTL, dgram(0x80, ctrl(0x20, 36, bytes(32)))),
           (CTL, dgram(0x80, ctrl(0x22, 12, bytes([0, 0, 0, 0, 203, 0, 113, 9])))),
           (AP, dgram(0x24, plain(105, 102, b"hello"), ap=1)), (CTL, dgram(0x08, b"", ap=1)),
           (CTL, dgram(0x24, enc(201, 101, 3, bytes(16)), ctlr=2)), (AP, dgram(0x08, b"", ctlr=2))]
    for k in range(3):
        out.append((AP, dgram(0x25 if k < 2 else 0x24, big[k * 1024:(k + 1) * 1024], frag=k, ap=3)))
    return out


def mangle(src, d):
    d = bytearray(d)
    how = random.randrange(8)
    if how == 0:
        d = d[:random.randrange(len(d) + 1)]
    elif how == 1:
        for _ in range(random.randrange(1, 4)):
            if d:
                d[random.randrange(len(d))] = random.randrange(256)
    elif how == 2 and len(d) >= 12:
        d[8] = random.randrange(256)
    elif how == 3 and len(d) >= 12:
        d[9], d[10], d[11] = (random.randrange(20) for _ in range(3))
    elif how == 4 and len(d) >= 16:
        d[12] = random.choice([0x1F, 0x20, 0x21, 0x22, 0x26, random.randrange(256)])
        d[14:16] = struct.pack(">H", random.choice([0, 3, 4, 11, 12, 35, 36, 103, 104, 2000]))
    elif how == 5 and len(d) >= 4:
        d[2:4] = struct.pack(">H", random.randrange(1100))
    elif how == 6:
        d = bytearray(random.randrange(256) for _ in range(random.randrange(40)))
    return src if random.randrange(4) else (CTL if src == AP else AP), bytes(d)


def main(seed, count, out):
    random.seed(seed)
    base = seeds()
    with open(out, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i in range(count):
            src, d = random.choice(base)
            if random.randrange(3):
                src, d = mangle(src, d)
            b = frame(src, d)
            f.write(struct.pack("<IIII", 1700000000 + i // 1000, (i % 1000) * 1000, len(b), len(b)))
            f.write(b)


if __name__ == "__main__":
    main(int(sys.argv[1]), int(sys.argv[2]), sys.argv[3])
