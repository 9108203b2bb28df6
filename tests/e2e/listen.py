#!/usr/bin/env python3
"""Listens on netlink unit 2, group 1, as a rating daemon would, and
prints the first request it receives: the sender's port id, the netlink
header and the request's fields. Usage: listen.py SECONDS"""
import socket
import struct
import sys

s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 2)
s.bind((0, 1))
s.settimeout(float(sys.argv[1]))
print("listening", flush=True)
data, (pid, groups) = s.recvfrom(65536)
nlen, ntype, nflags, nseq, npid = struct.unpack_from("=IHHII", data, 0)
p = data[16:]
kind, service, family = struct.unpack_from("=IIH", p, 0)
src = socket.inet_ntop(socket.AF_INET, p[12:16]) if family == 2 else socket.inet_ntop(socket.AF_INET6, p[12:28])
dst = socket.inet_ntop(socket.AF_INET, p[28:32]) if family == 2 else socket.inet_ntop(socket.AF_INET6, p[28:44])
sport, dport = struct.unpack_from("!HH", p, 44)
url = p[48:308].split(b"\0")[0].decode()
host = p[308:568].split(b"\0")[0].decode()
print(f"from {pid} bytes {len(data)} nlmsg_len {nlen} type {ntype} flags {nflags} seq {nseq} pid {npid} "
      f"kind {kind} service {service} family {family} src {src} dst {dst} dport {dport} url {url} host {host}",
      flush=True)
