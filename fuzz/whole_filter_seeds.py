#!/usr/bin/env python3
"""Writes the whole_filter seeds for fragments and replies (the input
format is described at the top of fuzz/whole_filter.cpp) into the
directory given, fuzz/corpus/whole_filter by default."""
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
            fp = (frag - 1 + kind) & 15 | (frag + kind + from_server // 8) % 4 << 4
            for fp in (fp, fp ^ 0x47):
                a = v6 | kind << 1 | from_server | (frag & 3) << 5
                payload = bytes([0x18]) + GET if kind != 2 else bytes([frag])
                out += step(frag << 5, a, kind, payload + bytes([fp]))
    return out


def replies(mode):
    out = b""
    # Requests from four clients of both families, none answered yet.
    for who in range(4):
        for v6 in (0, 1):
            a = v6 | who << 5
            out += step(0, a, 0, bytes([0x02]))
            out += step(0, a, 0, bytes([0x18]) + GET)
    # Answers to old requests picked by index: each verdict, unterminated
    # and long addresses, duplicates.
    out += step(2, 2, 0x20 | 0x40, bytes([0, 3, 5]))
    out += step(2, 2, 0x20 | 0x10 | 0x08, bytes([1, 2]))
    out += step(2, 1, 0x20, bytes([4, 6, 7, 200]))
    out += step(2, 0, 0x20 | 0x40, bytes([0, 1, 2, 3, 4, 5, 6, 7]))
    out += step(2, 3, 0x20, bytes([9]))
    # Conversations whose block pages carry an unterminated address.
    out += step(0, 0x20, 0, bytes([0x18]) + GET)
    out += step(2, 2, 0x40)
    out += step(7, 0x80 | 4, 0x02)
    out += step(2, 2, 0x20 | 0x40, bytes([255, 254]))
    return bytes([mode]) + out


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
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)


main()
