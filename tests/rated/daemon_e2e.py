#!/usr/bin/env python3
# dnshook-rated end to end, in a network namespace of the test's own: this
# script plays the filter's side of the channel (requests to group 1 of
# netlink unit 2, laid out as the filter lays them out) and compares every
# reply byte for byte with one built from the request, and the daemon's log
# lines whole. Usage: daemon_e2e.py BUILD_DIR. Exit 77 (skipped) where no
# network namespace can be made.
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

if os.environ.get("RATED_E2E_IN_NS") != "1":
    for ns in (["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"]):
        if subprocess.run(ns + ["true"], stderr=subprocess.DEVNULL).returncode == 0:
            sys.exit(subprocess.run(ns + [sys.executable] + sys.argv, env=dict(os.environ, RATED_E2E_IN_NS="1")).returncode)
    print("SKIP: needs root or user namespaces for a network namespace of its own")
    sys.exit(77)

RATED = os.path.join(sys.argv[1], "rated", "dnshook-rated")
POLICY = """block-page http://blocked.lan/?host={host}&url={url}&device={device}
[wp]
default pass
block games.example.net
white video.example.net
[pc]
default pass
[device 00:11:22:33:44:55 kids]
default block
white homework.example.org
"""
KIDS = bytes.fromhex("001122334455")
fails = 0


def expect(what, want, got):
    global fails
    print(("ok   - " if want == got else "FAIL - ") + what + ("" if want == got else f": expected {want!r}, got {got!r}"))
    fails += want != got


def request(service, host, url="/", src="192.168.1.10", dst="93.184.216.34", ports=(40000, 80), mac=b"", family=None):
    # A request record as the filter lays it out: kind, service, family,
    # addresses, ports, URL and host texts, MAC.
    af = socket.AF_INET6 if ":" in dst else socket.AF_INET
    fam = family if family is not None else (10 if af == socket.AF_INET6 else 2)
    addr = lambda a: socket.inet_pton(af, a).ljust(16, b"\0") if a else bytes(16)
    return (struct.pack("=IIH2x", 0, service, fam) + addr(src) + addr(dst) + struct.pack("!HH", *ports)
            + url.encode().ljust(260, b"\0") + host.encode().ljust(260, b"\0") + mac.ljust(8, b"\0"))


def reply(req, verdict, page=""):
    # The reply as the channel's layout says: kind 1, the service plus one,
    # the header fields echoed, the verdict and the block page's address.
    service = struct.unpack_from("=I", req, 4)[0] + 1
    return struct.pack("=II", 1, service) + req[8:48] + struct.pack("=I", verdict) + page.encode().ljust(524, b"\0")


class Daemon:
    def __init__(self, policy_file, *args):
        self.log_file = policy_file + ".log"
        self.proc = subprocess.Popen([RATED, "--policy", policy_file, *args], stdout=subprocess.PIPE,
                                     stderr=open(self.log_file, "w"), text=True)
        self.ready = self.proc.stdout.readline().rstrip("\n")

    def log(self):
        with open(self.log_file) as f:
            return [l.rstrip("\n").split(" ", 1)[1] for l in f]

    def wait_log(self, needle, secs=3):
        for _ in range(secs * 100):
            if any(needle in l for l in self.log()):
                return True
            time.sleep(0.01)
        return False

    def stop(self, sig=signal.SIGTERM):
        self.proc.send_signal(sig)
        return self.proc.wait(5)


sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 2)
sock.bind((0, 0))
port = sock.getsockname()[0]


def send(payload, raw=False):
    # One message to group 1: a netlink header (length, type 0, our port id) and the payload.
    msg = payload if raw else struct.pack("=IHHII", 16 + len(payload), 0, 0, 0, port) + payload
    try:
        sock.sendto(msg.ljust((len(msg) + 3) & ~3, b"\0"), (0, 1))
    except OSError:  # the unicast half to port 0 finds no kernel socket here
        pass


def receive(secs=2.0):
    sock.settimeout(secs)
    try:
        return sock.recv(65536)
    except socket.timeout:
        return None


def ask(req):
    # The daemon's answer: one datagram, its header saying 592 bytes of type 0; the payload.
    send(req)
    got = receive() or bytes(16)
    expect("a reply's netlink header", (592, 592, 0), (len(got), *struct.unpack_from("=IH", got)))
    return got[16:]


with tempfile.TemporaryDirectory() as tmp:
    policy = os.path.join(tmp, "e2e.policy")
    open(policy, "w").write(POLICY)
    games = request(2, "games.example.net", "/play?level=2")

    # Four kinds of request, each answered as the policy says and logged.
    d = Daemon(policy)
    expect("ready line", f"dnshook-rated: ready, policy {policy} (6 rules)", d.ready)
    for what, req, verdict, page in [
        ("WP HTTP over IPv4: blocked", games, 2,
         "http://blocked.lan/?host=games.example.net&url=games.example.net%2Fplay%3Flevel%3D2&device="),
        ("WP flow: white answered as PASS", request(2, "video.example.net", "", None, "198.51.100.7", (0, 0), family=0), 0, ""),
        ("PC HTTP over IPv6 from the kids' device: white", request(4, "homework.example.org", "/maths", "2001:db8:1::10",
                                                                   "2001:db8:2::80", (40200, 80), KIDS), 1, ""),
        ("PC flow from the kids' device: the device's default", request(4, "chat.example.org", "/", dst="198.51.100.25",
                                                                        ports=(0, 0), mac=KIDS), 2,
         "http://blocked.lan/?host=chat.example.org&url=chat.example.org%2F&device=kids"),
    ]:
        expect(what, reply(req, verdict, page).hex(), ask(req).hex())
    expect("stopped by SIGTERM", 0, d.stop())
    expect("the decisions and the figures logged", [
        f"info: WP mac=- device=- client=192.168.1.10 host=games.example.net url=/play?level=2 BLOCK by {policy}:4: block games.example.net",
        f"info: WP mac=- device=- client=- host=video.example.net url=- PASS by {policy}:5: white video.example.net (as pass: a WP flow knows no white)",
        f"info: PC mac=00:11:22:33:44:55 device=kids client=2001:db8:1::10 host=homework.example.org url=/maths WHITE_PASS by {policy}:10: white homework.example.org",
        f"info: PC mac=00:11:22:33:44:55 device=kids client=192.168.1.10 host=chat.example.org url=/ BLOCK by {policy}:9: default block",
        "warning: stopping: 4 requests answered, 0 replies dropped on purpose, 0 not yet due, 0 messages ignored, 0 sends failed, 0 buffer overflows",
    ], d.log())

    # What cannot be answered is ignored, warned about once per kind.
    d = Daemon(policy)
    for _ in range(2):
        send(games[:100])
        send(b"\1" + games[1:])
        send(games[:4] + b"\3" + games[5:])
        send(b"\xff" * 8, raw=True)
    verdict = lambda: struct.unpack_from("=I", ask(games).ljust(52, b"\0"), 48)[0]
    expect("still answering", 2, verdict())
    expect("one reply, nothing for the rest", None, receive(0.1))
    expect("each kind warned about once", [
        "warning: ignoring messages not 576 bytes long (first one 100 bytes); further ones are only counted",
        "warning: ignoring messages not a request (kind not 0) (first one 576 bytes); further ones are only counted",
        "warning: ignoring messages for an unknown service (neither 2 nor 4) (first one 576 bytes); further ones are only counted",
        "warning: ignoring datagrams with a malformed netlink header; further ones are only counted",
    ], [l for l in d.log() if l.startswith("warning: ignoring")])

    # A bad policy: every error logged, the old one kept; a good one replaces
    # it, and requests sent around the signal are all answered.
    open(policy, "w").write("[wp]\npass games.example.net\nallow x\n[device 00:11 x]\n")
    d.proc.send_signal(signal.SIGHUP)
    for line in [f"error: {policy}:3: unknown keyword 'allow'", f"error: {policy}:4: bad MAC address '00:11'",
                 f"error: reload of {policy} failed: 2 errors; keeping the policy in use (6 rules)"]:
        expect("bad reload: " + line, True, d.wait_log(line))
    expect("bad reload: the old policy kept", 2, verdict())
    open(policy, "w").write("[wp]\npass games.example.net\n")
    send(games)
    d.proc.send_signal(signal.SIGHUP)
    send(games)
    expect("requests around the reload answered", [True, True], [receive() is not None for _ in range(2)])
    expect("reloaded", True, d.wait_log(f"warning: reloaded {policy} (1 rules)"))
    expect("the new policy decides", 0, verdict())
    expect("stopped by SIGINT", 0, d.stop(signal.SIGINT))
    expect("the figures", True, d.wait_log("stopping: 5 requests answered, 0 replies dropped on purpose, 0 not yet due, 8 messages ignored"))

    # Delayed, dropped and randomly dropped replies.
    d = Daemon(policy, "--delay", "300", "--quiet")
    t0 = time.monotonic()
    send(games)
    expect("--delay 300: a reply, after 300 ms", (True, True), (receive(3) is not None, time.monotonic() - t0 >= 0.3))
    expect("--quiet: stopped, nothing logged", (0, []), (d.stop(), d.log()))
    d = Daemon(policy, "--drop", "100")
    send(games)
    expect("--drop 100: no reply", None, receive(0.3))
    d.stop()
    d = Daemon(policy, "--drop", "50", "--seed", "7", "--log-level", "error")
    for _ in range(20):
        send(games)
    got = 0
    while receive(0.3):
        got += 1
    expect(f"--drop 50: some of 20 answered ({got})", True, 0 < got < 20)
    d.stop()

print(f"{fails} check(s) failed" if fails else "all checks passed")
sys.exit(1 if fails else 0)
