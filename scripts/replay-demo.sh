#!/usr/bin/env bash
# `make demo` where the live demo cannot run: a capture of real traffic
# (tests/data/replay/story.pcap, made by capture.sh beside it with dig,
# curl and socat in namespaces) replayed through the filter with a bundled
# policy, once with the warning page (WP) and once with parental control
# (PC). Usage: scripts/replay-demo.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
replay="$build/tools/dnshook-replay"
data=tests/data/replay

cat <<EOT
== dnshook-replay: a capture of real traffic through the filter ==
One client (192.168.77.10, MAC 02:00:00:77:00:10) behind the router looks
names up and visits: news.example.test (allowed), games.example.test
(blocked), a chat service on port 5222 (blocked for WP), an HTTPS site
(blocked for the laptop under PC), an address it never looked up, and a
site over IPv6. The policy ($data/story.policy):

$(grep -v '^#' "$data/story.policy" | sed '/^$/d; s/^/    /')

Each packet: number, capture time, addresses, flags, the devices it
crosses, and what PRE_ROUTING and FORWARD decided (and which hook dropped
it); below it the filter's log, its rating requests, the daemon's replies
and every packet the filter sent itself.
EOT

for service in wp pc; do
	echo
	echo "---- $(tr a-z A-Z <<<"$service") on: $replay --$service --policy $data/story.policy $data/story.pcap ----"
	"$replay" "--$service" --log-level 7 --policy "$data/story.policy" "$data/story.pcap"
done
