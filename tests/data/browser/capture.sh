#!/usr/bin/env bash
# Makes browser.pcap: real HTTP traffic of curl and wget through a router,
# captured on the router's LAN side, both directions. Several connections,
# several pages per connection (keep-alive), three host names served by
# Python's http.server. Run by hand as root; the test only reads the capture.
#
#   +--- ns hb-cli ---+      +-------- ns hb-rtr --------+      +--- ns hb-srv ---+
#   | curl, wget      |      | tcpdump on lan0           |      | http.server :80 |
#   | cli0 10.61.1.10 +------+ lan0 10.61.1.1            |      |                 |
#   |  gw 10.61.1.1   |      |            wan0 10.61.2.1 +------+ srv0 10.61.2.80 |
#   +-----------------+      +---------------------------+      +-----------------+
#
# Nothing routes out of the three namespaces.
set -euo pipefail

out=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
chmod 755 "$work"
pids=()

cleanup() {
	for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
	sleep 0.5
	for n in hb-cli hb-rtr hb-srv; do ip netns del "$n" 2>/dev/null || true; done
	rm -rf "$work"
}
trap cleanup EXIT

cli() { ip netns exec hb-cli "$@"; }
rtr() { ip netns exec hb-rtr "$@"; }
srv() { ip netns exec hb-srv "$@"; }

for n in hb-cli hb-rtr hb-srv; do ip netns add "$n"; ip netns exec "$n" ip link set lo up; done
ip link add cli0 netns hb-cli type veth peer name lan0 netns hb-rtr
ip link add srv0 netns hb-srv type veth peer name wan0 netns hb-rtr
cli ip addr add 10.61.1.10/24 dev cli0
rtr ip addr add 10.61.1.1/24 dev lan0
rtr ip addr add 10.61.2.1/24 dev wan0
srv ip addr add 10.61.2.80/24 dev srv0
# Checksums computed by the senders, not left to offloading, so the
# capture holds the segments as they travel.
cli ethtool -K cli0 tx off >/dev/null
srv ethtool -K srv0 tx off >/dev/null
cli ip link set cli0 up
rtr ip link set lan0 up
rtr ip link set wan0 up
srv ip link set srv0 up
cli ip route add default via 10.61.1.1
srv ip route add default via 10.61.2.1
rtr sysctl -qw net.ipv4.ip_forward=1

mkdir -p "$work/site/img"
echo "<html><body>welcome</body></html>" >"$work/site/index.html"
echo "<html><body>news of the day</body></html>" >"$work/site/news.html"
head -c 3000 /dev/zero | tr '\0' 'p' >"$work/site/img/photo.bin"
# Python's http.server, made to speak HTTP/1.1 so connections are kept alive.
(cd "$work/site" && exec ip netns exec hb-srv python3 -c '
import http.server as hs
hs.SimpleHTTPRequestHandler.protocol_version = "HTTP/1.1"
hs.ThreadingHTTPServer(("10.61.2.80", 80), hs.SimpleHTTPRequestHandler).serve_forever()
' >/dev/null 2>&1) &
pids+=($!)
sleep 1.5

ip netns exec hb-rtr tcpdump -i lan0 -U -s 0 -w "$work/browser.pcap" tcp port 80 2>/dev/null &
tcpdump_pid=$!
pids+=($tcpdump_pid)
sleep 1

site=10.61.2.80
# One connection, three pages (keep-alive) to an allowed host.
cli curl -s -o /dev/null -o /dev/null -o /dev/null \
	--resolve news.allowed.test:80:$site \
	http://news.allowed.test/ http://news.allowed.test/news.html http://news.allowed.test/img/photo.bin
# A blocked host, two pages on one connection.
cli curl -s -o /dev/null -o /dev/null --resolve games.blocked.test:80:$site \
	http://games.blocked.test/ http://games.blocked.test/news.html
# Another allowed host by wget, two pages on one connection.
cli wget -q -O /dev/null --header="Host: shop.allowed.test" \
	http://$site/index.html http://$site/news.html
# Two separate connections to the blocked host and one more allowed one.
cli curl -s -o /dev/null --resolve games.blocked.test:80:$site http://games.blocked.test/img/photo.bin
cli curl -s -o /dev/null -A "Mozilla/5.0 (X11; Linux x86_64)" -H "Accept-Language: en" \
	--resolve news.allowed.test:80:$site http://news.allowed.test/news.html?id=42
sleep 1
kill -INT "$tcpdump_pid"
wait "$tcpdump_pid" 2>/dev/null || true
cp "$work/browser.pcap" "$out/browser.pcap"
echo "wrote $out/browser.pcap: $(tcpdump -r "$out/browser.pcap" 2>/dev/null | wc -l) packets"
