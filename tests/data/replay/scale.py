#!/usr/bin/env python3
"""Makes a large capture of mixed traffic from a small one of real traffic.

    scale.py IN.pcap COPIES OUT.pcap [SPACING]

Each copy of IN (classic pcap, Ethernet) is the same conversation by another
client: the LAN client's IPv4 address (192.168.77.10), IPv6 address
(fd77::10) and MAC (02:00:00:77:00:10) are replaced by ones of its own, every
checksum is made again, and copy n starts n x SPACING seconds (default 0.02)
after the first, so the copies overlap as many clients' traffic would. The
copies are merged in time order. With tests/data/replay/story.pcap (95
packets), 1053 copies give 100,035 packets.
"""
import heapq
import struct
import sys

CLIENT4 = bytes([192, 168, 77, 10])
CLIENT6 = bytes.fromhex("fd770000000000000000000000000010")
CLIENT_MAC = bytes.fromhex("020000770010")


def csum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return (~s) & 0xFFFF


def read_pcap(path):
    b = open(path, "rb").read()
    magic, = struct.unpack("<I", b[:4])
    if magic not in (0xA1B2C3D4, 0xA1B23C4D) or struct.unpack("<I", b[20:24])[0] != 1:
        sys.exit("%s: not a little-endian Ethernet pcap file" % path)
    div = 1e9 if magic == 0xA1B23C4D else 1e6
    pos, recs = 24, []
    while pos + 16 <= len(b):
        sec, frac, caplen, length = struct.unpack("<IIII", b[pos:pos + 16])
        recs.append((sec + frac / div, b[pos + 16:pos + 16 + caplen], length))
        pos += 16 + caplen
    return recs


def fix_transport(ip, off, proto, pseudo):
    """Recomputes the TCP or UDP checksum of a whole (uncut) segment."""
    seg = bytearray(ip[off:])
    at = 16 if proto == 6 else 6
    if proto not in (6, 17) or len(seg) < at + 2:
        return ip
    seg[at:at + 2] = b"\0\0"
    c = csum(pseudo + struct.pack("!HH", proto, len(seg)) + bytes(seg))
    if proto == 17 and c == 0:
        c = 0xFFFF
    seg[at:at + 2] = struct.pack("!H", c)
    return ip[:off] + bytes(seg)


def rewrite(frame, n):
    mac = bytes([0x02, 0x00, 0x01, (n >> 16) & 0xFF, (n >> 8) & 0xFF, n & 0xFF])
    v4 = bytes([192, 168, 100 + n // 250, 2 + n % 250])
    v6 = CLIENT6[:14] + struct.pack("!H", 0x1000 + n)
    eth = frame[:14].replace(CLIENT_MAC, mac)
    ip = bytearray(frame[14:])
    etype = struct.unpack("!H", frame[12:14])[0]
    if etype == 0x0800 and len(ip) >= 20:
        ihl = (ip[0] & 0xF) * 4
        for a in (12, 16):
            if ip[a:a + 4] == CLIENT4:
                ip[a:a + 4] = v4
        ip[10:12] = b"\0\0"
        ip[10:12] = struct.pack("!H", csum(bytes(ip[:ihl])))
        ip = fix_transport(bytes(ip), ihl, ip[9], bytes(ip[12:20]))
    elif etype == 0x86DD and len(ip) >= 40:
        for a in (8, 24):
            if ip[a:a + 16] == CLIENT6:
                ip[a:a + 16] = v6
        ip = fix_transport(bytes(ip), 40, ip[6], bytes(ip[8:40]))
    return eth + bytes(ip)


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    recs = read_pcap(sys.argv[1])
    copies, spacing = int(sys.argv[2]), float(sys.argv[4]) if len(sys.argv) == 5 else 0.02
    t0 = recs[0][0]

    def copy(n):
        for t, frame, length in recs:
            yield (t - t0 + n * spacing, n, frame, length)

    with open(sys.argv[3], "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))
        count = 0
        for t, n, frame, length in heapq.merge(*(copy(n) for n in range(copies)), key=lambda r: r[0]):
            f = rewrite(frame, n)
            t += 1700000000
            sec = int(t)
            out.write(struct.pack("<IIII", sec, int(round((t - sec) * 1e6)) % 1000000, len(f), length) + f)
            count += 1
    print("wrote %s: %d packets from %d copies" % (sys.argv[3], count, copies))


if __name__ == "__main__":
    main()
