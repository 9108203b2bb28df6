#!/usr/bin/env bash
# HTTP through dnshookd with real clients and servers: allowed pages load
# whole, blocked ones get the redirect and close cleanly on both ends, a
# WHITE_PASS site passes a time-blocked device. Usage: http.sh BUILD_DIR
set -u
E2E_BUILD=$(realpath "$1")
. "$(dirname "$0")/netns.sh"
e2e_begin

e2e_rated "$(dirname "$0")/test.policy"
# Closed connections leave the kernel's table within seconds.
r sysctl -qw net.netfilter.nf_conntrack_tcp_timeout_time_wait=1 net.netfilter.nf_conntrack_tcp_timeout_fin_wait=1 \
	net.netfilter.nf_conntrack_tcp_timeout_last_ack=1 net.netfilter.nf_conntrack_tcp_timeout_close=1
e2e_dnshookd --log-level 7
echo 1 >"$CTL/wl_warning_page"

# Warning page on: each row is family, site, address, expected answer.
while read -r fam host addr want; do
	expect_fetch "$fam $host" "$want" "$NS_C0" "$host" "$addr" "/$fam-$host"
	[ "$want" = page ] && expect "$fam $host: the server saw the request once" 1 \
		"$(grep -c "\"GET /$fam-$host HTTP" "$E2E_DIR/servers.log")"
done <<'ROWS'
ipv4 allowed.test 198.51.100.10 page
ipv4 blocked.test 198.51.100.20 blocked
ipv6 allowed.test 2001:db8:100::10 page
ipv6 blocked.test 2001:db8:100::20 blocked
ROWS

# A replayed request leaves by the device it came in on: the LAN bridge.
sent_wan=$(status counters sent | grep -c wan0)
expect "held copies and forged segments leave by br0 only" 0 "$sent_wan"
expect "requests sent to the daemon" 4 "$(status counters requests)"

# A blocked connection: the filter plays the client's closing handshake,
# so the client's end is gone at once (or after a retransmitted FIN). The
# server is never reset on this path (the verdict moves the connection
# straight to the redirect): it has sent its answer and closed its side;
# the client's resets of what it retransmits are dropped while the filter
# still tracks the connection, so its end may linger in FIN-WAIT-1.
conns() { "$@" ss -Htn state connected "( sport = :80 or dport = :80 )" | grep -v TIME-WAIT | awk '{print $1}' | sort | uniq -c | xargs; }
client_closed() { test -z "$(conns c0)"; }
e2e_wait 5 "the client's ends to close" client_closed
expect "the client's ends of both blocked connections are closed" "" "$(conns c0)"
server_states=$(conns srv)
expect "the servers' ends have closed their side (${server_states:-all closed})" 0 \
	"$(srv ss -Htn state established "( sport = :80 )" | wc -l)"

# Parental control alone, the client time-blocked: only white sites pass.
echo 0 >"$CTL/wl_warning_page"
echo 1 >"$CTL/pcg_proc"
echo "add $MAC_C0" >"$CTL/tblock_proc"
expect "the time block is listed" "$MAC_C0" "$(status devices tblock)"
expect_fetch "white.test passes the time-blocked device" page "$NS_C0" white.test 198.51.100.30 /white
expect "its connection is marked white" 1 "$(status tables white_connections)"
FETCH_TIMEOUT=3 expect_fetch "allowed.test stalls for the time-blocked device" stall "$NS_C0" allowed.test 198.51.100.10 /timeblocked
expect_fetch "another device is not held back" page "$NS_C1" allowed.test 198.51.100.10 /other-device
# white_mark lives with the kernel's connection: gone when it is destroyed.
no_white() { test "$(status tables white_connections)" = 0; }
start=$SECONDS
e2e_wait 40 "the white connection to be destroyed" no_white
expect "the white mark goes with the kernel's connection (after $((SECONDS - start)) s)" 0 "$(status tables white_connections)"

e2e_finish
