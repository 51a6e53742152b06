#!/usr/bin/env python3
"""Writes malformed.pcap: Ethernet frames of the tovrin link between an AP
(10.0.0.2) and its controller (10.0.0.1), each datagram wrong in one way (CASES).
  make_malformed.py OUT                    regenerates the committed file
  make_malformed.py --frames OUT           frames that are not the link's or not whole
  make_malformed.py --noise SEED COUNT OUT well-formed and mangled datagrams from a seed"""
import random
import struct
import sys

AP, CTL = (10, 0, 0, 2), (10, 0, 0, 1)
MAGIC = 0xDEADFEED


def hdr(flags, data_len, frag=0, ctlr=0, ap=0, version=1, hdr_len=12, magic=MAGIC):
    return struct.pack(">BBHIBBBB", version, hdr_len, data_len, magic, flags, frag, ctlr, ap)


def dgram(flags, payload, **kw):
    return hdr(flags, kw.pop("data_len", len(payload)), **kw) + payload


def ctrl(type_, length, body):
    return struct.pack(">BBH", type_, 0, length) + body


def plain(src, dst, data, length=None):
    return struct.pack(">BBHII", 0x21, 0, length if length is not None else 12 + len(data), src, dst) + data


def enc(src, dst, pad, body, length=None):
    iv, md5 = bytes(range(16)), bytes(16)
    n = 48 + len(body)
    return struct.pack(">BBHIII", 0x26, 0, length if length is not None else n, src, dst, pad) + iv + md5 + body


REG = ctrl(0x1F, 104, b"SERIAL-1".ljust(16, b"\0") + struct.pack(">I", 42) + bytes.fromhex("020000000001")
           + bytes([0, 11]) + b"Testserver".ljust(64, b"\0") + struct.pack(">II", 5000, 0))

# (from, datagram, what it shows)
CASES = [
    (AP, dgram(0xA0, REG), "a good registration request: the AP is 10.0.0.2"),
    (AP, b"\x01\x0c\x00\x00\x00", "5 bytes: shorter than the frame header"),
    (AP, dgram(0xA0, REG, version=2), "version 2"),
    (AP, dgram(0xA0, REG, hdr_len=11), "header length 11"),
    (AP, dgram(0xA0, REG, magic=0xDEADBEEF), "wrong magic"),
    (AP, dgram(0x24, b"abcd", data_len=10), "data length 10, 4 bytes follow"),
    (AP, dgram(0x24, b"abc", data_len=0), "data length 0, 3 bytes follow"),
    (AP, dgram(0x24, bytes(1100)), "data length 1100, above 1024"),
    (CTL, dgram(0x80, ctrl(0x21, 8, bytes(4))), "unknown control type 0x21"),
    (CTL, dgram(0x80, ctrl(0x20, 35, bytes(31))), "keepalive response with length 35"),
    (AP, dgram(0xA0, ctrl(0x1F, 104, bytes(16))), "registration request with length 104 in 20 bytes"),
    (CTL, dgram(0x80, b"\x22\x00"), "control packet of 2 bytes"),
    (CTL, dgram(0x08, b"oops", ap=1), "acknowledgement with 4 bytes of data"),
    (CTL, dgram(0x08, b"", ap=77), "acknowledgement of a message never seen"),
    (AP, dgram(0x24, plain(105, 102, b"x" * 8), frag=2, ap=9), "fragment 2 of message 9 without the first"),
    (AP, dgram(0x24, plain(105, 102, b"y" * 8, length=100), ap=10), "length field 100 in 20 bytes"),
    (AP, dgram(0x24, struct.pack(">BBHII", 0x22, 0, 12, 1, 2), ap=11), "payload type 0x22"),
    (AP, dgram(0x24, struct.pack(">BBHII", 0x26, 0, 40, 1, 2) + bytes(28), ap=12), "encrypted, 40 bytes"),
    (AP, dgram(0x24, enc(105, 102, 20, bytes(16)), ap=13), "encrypted with pad 20"),
    (AP, dgram(0x24, enc(105, 102, 0, bytes(8)), ap=14), "encrypted part of 8 bytes"),
    (CTL, dgram(0x24, enc(201, 101, 3, bytes(range(32))), ctlr=5), "encrypted, digest does not match"),
    (AP, dgram(0x25, plain(105, 102, b"z" * 2000)[:1024], frag=0, ap=15), "fragment 0 of 3"),
    (AP, dgram(0x24, plain(105, 102, b"z" * 2000)[2048:], frag=2, ap=15), "fragment 2 of 3; 1 is lost"),
    (AP, dgram(0x24, plain(105, 102, b"never acknowledged"), ap=16), "a message nobody acknowledges"),
    (AP, dgram(0x24, plain(105, 102, b"sent twice"), ap=19), "a message"),
    (AP, dgram(0x26, plain(105, 102, b"sent twice"), ap=19), "the same message resent"),
    (CTL, dgram(0x0A, b"", ap=19), "its acknowledgement, as of a repeat"),
]
# A message of 17 fragments: larger than 16384 bytes.
BIG = plain(105, 102, b"b" * (17 * 1024 - 12))
for k in range(17):
    CASES.append((AP, dgram(0x25 if k < 16 else 0x24, BIG[k * 1024:(k + 1) * 1024], frag=k, ap=17),
                  "fragment %d of a message of 17" % k))


def checksum(b):
    s = sum(struct.unpack(">%dH" % (len(b) // 2), b))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def ipv4(src, payload, **edits):
    """An IPv4 packet carrying UDP, with bytes at the offsets edits names (at5=...) changed."""
    dst = CTL if src == AP else AP
    udp = struct.pack(">HHHH", 6650, 6650, 8 + len(payload), 0) + payload
    ip = struct.pack(">BBHHHBBH4B4B", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0, *src, *dst)
    ip = bytearray(ip[:10] + struct.pack(">H", checksum(ip)) + ip[12:] + udp)
    for at, v in edits.items():
        ip[int(at[2:])] = v
    return bytes(ip)


def ethernet(src, ip, ethertype=0x0800):
    return bytes.fromhex("020000000001020000000002" if src == AP else "020000000002020000000001") + \
        struct.pack(">H", ethertype) + ip


def frame(src, payload):
    f = ethernet(src, ipv4(src, payload))
    return f + bytes(max(0, 60 - len(f)))


ACK = dgram(0x08, b"", ap=1)
# Frames that are not the link's or not whole: (frame, what it shows).
FRAMES = [
    (ethernet(AP, b"")[:13], "Ethernet header of 13 bytes"),
    (ethernet(AP, ipv4(AP, ACK), 0x0806), "ARP"),
    (bytes.fromhex("020000000001020000000002" "8100" "0005"), "VLAN tag cut short"),
    (ethernet(AP, ipv4(AP, ACK), 0x86DD), "IPv6"),
    (ethernet(AP, ipv4(AP, ACK)[:19]), "IPv4 header of 19 bytes"),
    (ethernet(AP, ipv4(AP, ACK, at0=0x65)), "IP version 6 behind the IPv4 type"),
    (ethernet(AP, ipv4(AP, ACK, at0=0x44)), "IPv4 header length 16"),
    (ethernet(AP, ipv4(AP, ACK, at3=19)), "IPv4 total length below its header"),
    (ethernet(AP, ipv4(AP, ACK, at9=6)), "TCP"),
    (ethernet(AP, ipv4(AP, ACK, at6=0x20)), "first IPv4 fragment"),
    (ethernet(AP, ipv4(AP, ACK, at7=1)), "later IPv4 fragment"),
    (ethernet(AP, ipv4(AP, ACK, at3=27)[:27]), "UDP header of 7 bytes"),
    (ethernet(AP, ipv4(AP, ACK, at25=7)), "UDP length 7"),
    (ethernet(AP, ipv4(AP, ACK, at25=21)), "UDP length beyond the IPv4 packet"),
]


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


def write(out, frames, cut=None):
    """A pcap file of the frames a millisecond apart; cut: a last frame the capture kept 50 bytes of."""
    with open(out, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i, b in enumerate(frames + ([cut] if cut else [])):
            kept = b[:50] if b is cut else b
            f.write(struct.pack("<IIII", 1700000000 + i // 1000, i % 1000 * 1000, len(kept), len(b)) + kept)


def noise(seed, count):
    random.seed(seed)
    # Well-formed datagrams of every kind, each with its sender, to mangle.
    big = plain(105, 102, bytes(random.randrange(256) for _ in range(2500)))
    base = [(AP, dgram(0xA0, REG)), (CTL, dgram(0x80, REG)),
           (AP, dgram(0xA0, ctrl(0x20, 36, bytes(32)))), (CTL, dgram(0x80, ctrl(0x20, 36, bytes(32)))),
           (CTL, dgram(0x80, ctrl(0x22, 12, bytes([0, 0, 0, 0, 203, 0, 113, 9])))),
           (AP, dgram(0x24, plain(105, 102, b"hello"), ap=1)), (CTL, dgram(0x08, b"", ap=1)),
           (CTL, dgram(0x24, enc(201, 101, 3, bytes(16)), ctlr=2)), (AP, dgram(0x08, b"", ctlr=2))]
    for k in range(3):
        base.append((AP, dgram(0x25 if k < 2 else 0x24, big[k * 1024:(k + 1) * 1024], frag=k, ap=3)))
    out = []
    for _ in range(count):
        src, d = random.choice(base)
        if random.randrange(3):
            src, d = mangle(src, d)
        out.append(frame(src, d))
    return out


if __name__ == "__main__":
    if sys.argv[1] == "--noise":
        write(sys.argv[4], noise(int(sys.argv[2]), int(sys.argv[3])))
    elif sys.argv[1] == "--frames":  # tovrin-pcap's alone: other dissectors take them for malformed packets
        write(sys.argv[2], [b for b, _ in FRAMES])
    else:
        write(sys.argv[1], [frame(src, d) for src, d, _ in CASES],
              frame(AP, dgram(0x24, plain(105, 102, b"cut by the snap length"), ap=18)))
