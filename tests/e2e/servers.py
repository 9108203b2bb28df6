#!/usr/bin/env python3
"""The server side of the end-to-end topology: an HTTP server on port 80
whose pages are made from the Host header and path (so a test knows every
byte it should get), and a banner service on port 7000 (a flow that is not
HTTP). Both listen on IPv4 and IPv6."""
import hashlib
import socket
import socketserver
import sys
import threading
from http.server import BaseHTTPRequestHandler


def page(host, path):
    """The body served for host and path: 64 KiB, the same every time."""
    seed = f"{host} {path}\n".encode()
    out = bytearray()
    n = 0
    while len(out) < 65536:
        out += hashlib.sha256(seed + str(n).encode()).hexdigest().encode() + b"\n"
        n += 1
    return bytes(out[:65536])


class Web(BaseHTTPRequestHandler):
    def do_GET(self):
        host = (self.headers.get("Host") or "").split(":")[0]
        body = page(host, self.path)
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, fmt, *args):
        sys.stderr.write("web: %s %s\n" % (self.address_string(), fmt % args))


class Banner(socketserver.BaseRequestHandler):
    def handle(self):
        self.request.sendall(b"banner from the flow service\n")


class Dual(socketserver.ThreadingTCPServer):
    address_family = socket.AF_INET6
    allow_reuse_address = True
    daemon_threads = True

    def server_bind(self):
        self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        super().server_bind()


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "page":
        host, path = sys.argv[2].split("/", 1)
        sys.stdout.buffer.write(page(host, "/" + path))
        sys.exit(0)
    servers = [Dual(("::", 80), Web), Dual(("::", 7000), Banner)]
    for s in servers:
        threading.Thread(target=s.serve_forever, daemon=True).start()
    print("servers: ready", flush=True)
    threading.Event().wait()
