#!/usr/bin/env python3
"""Writes the whole_filter seeds for fragments, replies to held and old
requests, IPv6 flows, long lists, multicast IPv6 and malformed DNS, in
each service mode (the input format is described at the top of
fuzz/whole_filter.cpp), into the directory given, fuzz/corpus/whole_filter
by default."""
import os
import sys

GET = b"GET /f HTTP/1.1\r\nHost: frag.example\r\nAccept: */*\r\n\r\n"


def step(op, a, b, data=b""):
    return bytes([op, a, b, len(data)]) + data


def fragments(v6, kind):
    """Each fragment kind (1-7) of a TCP (kind 0), UDP (1) or DNS (2)
    packet, both directions, with two size bytes (sizes, IPv6 extension
    headers and the more-fragments flag differ)."""
    out = b""
    for from_server in (0, 8):
        for frag in range(1, 8):
            first = (frag - 1 + kind) & 15 | (frag + kind + from_server // 8) % 4 << 4
            for fp in (first, first ^ 0x47):
                a = v6 | kind << 1 | from_server | (frag & 3) << 5
                payload = bytes([0x18]) + GET if kind != 2 else bytes([frag])
                out += step(frag << 5, a, kind, payload + bytes([fp]))
    return out


def replies(mode):
    # A query and its answer give out the servers' addresses first.
    out = step(0, 4, 0, b"\x01") + step(0, 12, 0, b"\x01")
    # Requests from four clients of both families, none answered yet.
    for who in range(4):
        for v6 in (0, 1):
            a = v6 | who << 5
            out += step(0, a, 0, bytes([0x02]))
            out += step(0, a | 8, 0, bytes([0x12]))
            out += step(0, a, 0, bytes([0x10]))
            out += step(0, a, 0, bytes([0x18]) + GET)
    # Answers to old requests picked by index: each verdict, unterminated
    # and long addresses, duplicates.
    out += step(2, 2, 0x20 | 0x40, bytes([0, 3, 5]))
    out += step(2, 2, 0x20 | 0x10 | 0x08, bytes([1, 2]))
    out += step(2, 1, 0x20, bytes([4, 6, 7, 200]))
    out += step(2, 0, 0x20 | 0x40, bytes([0, 1, 2, 3, 4, 5, 6, 7]))
    out += step(2, 3, 0x20, bytes([9]))
    # Ports zero, as in a flow's reply, for connections and flows alike.
    for verdict in range(4):
        out += step(2, verdict, 0xa0, bytes(range(0, 24, 3)))
    # Conversations whose block pages carry an unterminated address.
    out += step(0, 0x20, 0, bytes([0x18]) + GET)
    out += step(2, 2, 0x40)
    out += step(7, 0x80 | 4, 0x02)
    out += step(2, 2, 0x20 | 0x40, bytes([255, 254]))
    return bytes([mode]) + out


def flows6():
    """Flows over IPv6 to a name's address: each verdict, both ports, the
    server first or not, three devices."""
    out = b""
    for verdict in range(4):
        for who in range(3):
            a = 0x80 | 4 | who << 3 | (verdict + who) & 3
            out += step(5, a, verdict << 1 | (who & 1) | (verdict & 1) << 3)
    return out


def lists():
    """Many devices added to both lists, then deleted one by one and
    flushed, with packets from the devices between; a flush of the HTTPS
    trust seen first by the IPv6 hooks, then by the IPv4 ones."""
    out = b""
    macs = ["00:11:22:33:%02x:%02x" % (i // 7, (i * 37) & 255) for i in range(24)]
    for m in macs:
        out += step(3, 2, 0, ("add " + m + "\n").encode())
        out += step(3, 3, 0, ("+|" + m + ("|http://u%d.example/" % len(m) if m[-1] in "02468" else "")).encode())
    out += step(0, 0x21, 0, bytes([0x18]) + GET)
    for m in macs[::2]:
        out += step(3, 2, 0, ("del " + m).encode())
        out += step(3, 3, 0, ("-|" + m).encode())
    for cmd in ("=|flush_ssl", "=|flush_ublk", "=|flush"):
        out += step(3, 3, 0, cmd.encode())
        out += step(0, 0x01, 1, bytes([0x18]) + b"\x16\x03\x01")
        out += step(0, 0x00, 1, bytes([0x18]) + b"\x16\x03\x01")
    out += step(3, 2, 0, b"flush")
    return out


def multicast6():
    """Raw IPv6 packets with a multicast source or destination: UDP to
    port 53, TCP to ports 80 and 443."""
    out = b""
    src = bytes.fromhex("20010db8000100000000000000000010")
    mc = bytes.fromhex("ff020000000000000000000000000001")
    for proto, port in ((17, 53), (6, 80), (6, 443)):
        for s, d in ((src, mc), (mc, src)):
            tail = bytes([0, 20, 0, 0]) + bytes(12) if proto == 17 else bytes(8) + bytes.fromhex("5018721000000000")
            l4 = bytes([0x9c, 0x41]) + port.to_bytes(2, "big") + tail
            ip = bytes([0x60, 0, 0, 0, 0, len(l4), proto, 64]) + s + d + l4
            out += step(0, 3 << 1 | 1, 0, ip)
    return out


def dns_malformed():
    """DNS messages to port 53 over IPv6 (the bytes as they are): short,
    other opcodes and counts, an error code, names with pointers (forward,
    backward, looping, out of range), labels too long, a class other than
    IN, answers cut short, records of other types and sizes."""
    def hdr(flags, qd=1, an=0):
        return bytes([0, 7]) + flags.to_bytes(2, "big") + qd.to_bytes(2, "big") + an.to_bytes(2, "big") + bytes(4)
    q = b"\x01a\x07example\x00" + bytes([0, 1, 0, 1])
    rr = bytes([0xc0, 12, 0, 1, 0, 1, 0, 0, 1, 44, 0, 4, 93, 184, 216, 9])
    msgs = [
        bytes(5), hdr(0x0100)[:11], hdr(0x2900) + q, hdr(0x0100, qd=2) + q, hdr(0x8180, an=0) + q,
        hdr(0x8183, an=1) + q + rr, hdr(0x8180, an=200) + q + rr, hdr(0x0100) + b"\x00" + bytes([0, 1, 0, 1]),
        hdr(0x0100) + b"\xc0\x0c" + bytes([0, 1, 0, 1]), hdr(0x0100) + b"\xc0\xff" + bytes([0, 1, 0, 1]),
        hdr(0x0100) + b"\x01a\xc0\x12\x00" + bytes([0, 1, 0, 1]), hdr(0x0100) + b"\x3fabc",
        hdr(0x0100) + (b"\x3f" + b"x" * 63) * 3 + b"\xc0\x0c" + bytes([0, 1, 0, 1]),
        hdr(0x0100) + q[:-2] + bytes([0, 3]), hdr(0x0100) + q[:-3], hdr(0x8180, an=1) + q + rr[:9],
        hdr(0x8180, an=1) + q + rr[:11] + b"\xff",
        hdr(0x8180, an=3) + q + rr + rr[:2] + bytes([0, 28, 0, 1, 0, 0, 1, 44, 0, 16]) + bytes(16)
        + b"\x01b\xc0\x0c" + bytes([0, 5, 0, 1, 0, 0, 1, 44, 0, 2, 0xc0, 12]),
        hdr(0x8180, an=1) + q + b"\xc0\x1d" + rr[2:], hdr(0x8180, an=1) + q + b"\xc0\x0e" + rr[2:],
    ]
    out = b""
    for m in msgs:
        out += step(0, 2 << 1 | 1, 2, b"\x00" + m)
    return out


def main():
    d = sys.argv[1] if len(sys.argv) > 1 else "fuzz/corpus/whole_filter"
    os.makedirs(d, exist_ok=True)
    seeds = {}
    for mode in (1, 2, 3):
        for v6 in (0, 1):
            for kind, proto in enumerate(("tcp", "udp", "dns")):
                name = "fragments-mode%d-ipv%d-%s" % (mode, 6 if v6 else 4, proto)
                seeds[name] = bytes([mode]) + fragments(v6, kind)
        seeds["replies-mode%d" % mode] = replies(mode)
        seeds["flows6-mode%d" % mode] = bytes([mode]) + flows6()
        seeds["lists-many-mode%d" % mode] = bytes([mode]) + lists()
        seeds["multicast6-mode%d" % mode] = bytes([mode]) + multicast6()
        seeds["dns-malformed-mode%d" % mode] = bytes([mode]) + dns_malformed()
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)


main()
