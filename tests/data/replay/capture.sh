#!/usr/bin/env bash
# Makes story.pcap: the real traffic of one client behind a router, captured
# on the router's LAN side, both directions, for the replay tests and the
# replay demo. Real programs only: dig, curl and socat as the client;
# dnsmasq, Python's http.server, openssl s_server and socat as the servers.
# Run by hand as root (needs tcpdump, dnsmasq, dig, socat, openssl, ethtool);
# the unit tests only read the committed capture, the end-to-end test makes
# a fresh one. Usage: capture.sh [OUTPUT_DIR] (default: beside this script).
#
#   +--- ns rp-cli ----------+      +------ ns rp-rtr ------+      +--- ns rp-srv -----------------+
#   | dig, curl, socat       |      | tcpdump on lan0       |      | dnsmasq   .53   2001:db8:77::53|
#   | cli0 192.168.77.10     +------+ lan0 192.168.77.1     |      | http      .80 .81 [::80]      |
#   |      fd77::10          |      |      fd77::1          |      | socat     .22:5222            |
#   |  gw 192.168.77.1       |      | wan0 203.0.113.1      +------+ s_server  .43:443             |
#   +------------------------+      |      2001:db8:77::1   |      | srv0 203.0.113.x/24           |
#                                   +-----------------------+      +-------------------------------+
#
# The addresses live only inside these three namespaces; nothing routes out.
set -euo pipefail

out=${1:-$(cd "$(dirname "$0")" && pwd)}
work=$(mktemp -d)
chmod 755 "$work"  # dnsmasq and the servers read it as other users
pids=()
tag=rp$$

cleanup() {
	for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
	sleep 0.5
	for n in cli rtr srv; do ip netns del "$tag-$n" 2>/dev/null || true; done
	rm -rf "$work" "/etc/netns/$tag-cli" "/etc/netns/$tag-srv"
}
trap cleanup EXIT

# Background jobs are started with ip netns exec itself, so that $! is the
# program and not a subshell.
cli() { ip netns exec "$tag-cli" "$@"; }
rtr() { ip netns exec "$tag-rtr" "$@"; }
srv() { ip netns exec "$tag-srv" "$@"; }

# Name look-ups of the programs in the namespaces go to dnsmasq only.
for n in cli srv; do
	mkdir -p "/etc/netns/$tag-$n"
	echo "nameserver 203.0.113.53" >"/etc/netns/$tag-$n/resolv.conf"
done
for n in cli rtr srv; do ip netns add "$tag-$n"; ip netns exec "$tag-$n" ip link set lo up; done
ip link add cli0 netns "$tag-cli" address 02:00:00:77:00:10 type veth peer name lan0 netns "$tag-rtr" address 02:00:00:77:00:01
ip link add srv0 netns "$tag-srv" address 02:00:00:77:01:80 type veth peer name wan0 netns "$tag-rtr" address 02:00:00:77:01:01
cli ip addr add 192.168.77.10/24 dev cli0
cli ip -6 addr add fd77::10/64 dev cli0 nodad
rtr ip addr add 192.168.77.1/24 dev lan0
rtr ip -6 addr add fd77::1/64 dev lan0 nodad
rtr ip addr add 203.0.113.1/24 dev wan0
rtr ip -6 addr add 2001:db8:77::1/64 dev wan0 nodad
for a in 53 80 81 22 43 99; do srv ip addr add 203.0.113.$a/24 dev srv0; done
for a in 53 80; do srv ip -6 addr add 2001:db8:77::$a/64 dev srv0 nodad; done
# Checksums computed by the senders, not left to offloading, so the
# capture holds the segments as they travel.
cli ethtool -K cli0 tx off >/dev/null
srv ethtool -K srv0 tx off >/dev/null
cli ip link set cli0 up
rtr ip link set lan0 up
rtr ip link set wan0 up
srv ip link set srv0 up
cli ip route add default via 192.168.77.1
cli ip -6 route add default via fd77::1
srv ip route add default via 203.0.113.1
srv ip -6 route add default via 2001:db8:77::1
rtr sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1

# Names: an allowed news site, a blocked games site (the same server, other
# address), a chat service (non-HTTP), a secure site (HTTPS), and a news
# site over IPv6.
ip netns exec "$tag-srv" dnsmasq --keep-in-foreground --no-resolv --no-hosts --bind-interfaces \
	--listen-address=203.0.113.53 --listen-address=2001:db8:77::53 --port=53 \
	--pid-file="$work/dnsmasq.pid" --local=/test/ \
	--host-record=news.example.test,203.0.113.80 --host-record=games.example.test,203.0.113.81 \
	--host-record=chat.example.test,203.0.113.22 --host-record=secure.example.test,203.0.113.43 \
	--host-record=www6.example.test,2001:db8:77::80 --log-facility=/dev/null &
pids+=($!)

mkdir -p "$work/site"
echo "<html><head><link rel=stylesheet href=/style.css></head><body>news of the day</body></html>" >"$work/site/index.html"
echo "body { color: black }" >"$work/site/style.css"
(cd "$work/site" && exec ip netns exec "$tag-srv" python3 -c '
import http.server as hs, socket
hs.SimpleHTTPRequestHandler.protocol_version = "HTTP/1.1"
class Server(hs.ThreadingHTTPServer):
    address_family = socket.AF_INET6  # both families on one socket
Server(("::", 80), hs.SimpleHTTPRequestHandler).serve_forever()
' >/dev/null 2>&1) &
pids+=($!)
ip netns exec "$tag-srv" socat TCP4-LISTEN:5222,bind=203.0.113.22,reuseaddr,fork SYSTEM:'read l; echo "hello $l"' &
pids+=($!)
openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=secure.example.test -days 2 \
	-keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
(cd "$work" && exec ip netns exec "$tag-srv" openssl s_server -quiet -accept 203.0.113.43:443 -www \
	-cert cert.pem -key key.pem >/dev/null 2>&1) &
pids+=($!)

sleep 1.5

ip netns exec "$tag-rtr" tcpdump -i lan0 -U -s 0 -w "$work/story.pcap" not arp and not icmp6 2>/dev/null &
tcpdump_pid=$!
pids+=($tcpdump_pid)
sleep 1

browse() {  # a browser-like visit: the page, then its style sheet, one connection
	cli curl -4 -s -o /dev/null -o /dev/null -A "Mozilla/5.0 (X11; Linux x86_64)" \
		-H "Accept: text/html,*/*" -H "Accept-Language: en" "$1" "$2" || true
}
# A DNS lookup of its own, then an allowed site and a blocked one.
cli dig +tries=1 +time=2 @203.0.113.53 news.example.test A >/dev/null || true
sleep 0.2
browse http://news.example.test/ http://news.example.test/style.css
sleep 0.2
browse http://games.example.test/ http://games.example.test/style.css
sleep 0.2
# A non-HTTP flow to a name the client looked up.
echo chat | cli socat -t 2 - TCP4:chat.example.test:5222 >/dev/null || true
sleep 0.2
# An HTTPS flow.
cli curl -4 -s -k -o /dev/null https://secure.example.test/ || true
sleep 0.2
# A flow to an address no lookup gave.
cli socat -T 1 - TCP4:203.0.113.99:2222 </dev/null >/dev/null 2>&1 || true
sleep 0.2
# The news site over IPv6.
cli curl -6 -s -o /dev/null http://www6.example.test/ || true
sleep 1
kill -INT "$tcpdump_pid"
wait "$tcpdump_pid" 2>/dev/null || true
cp "$work/story.pcap" "$out/story.pcap"
echo "wrote $out/story.pcap: $(tcpdump -r "$out/story.pcap" 2>/dev/null | wc -l) packets, $(stat -c %s "$out/story.pcap") bytes"
