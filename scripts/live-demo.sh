#!/usr/bin/env bash
# The live demo: dnshookd and dnshook-rated on a router made of network
# namespaces, with a client browsing through it. Prints what the client
# saw, the daemon's decisions and the filter's log, then tears it all
# down (also on Ctrl-C). Needs root. Usage: scripts/live-demo.sh BUILD_DIR
set -u
E2E_BUILD=$(realpath "${1:-build}")
cd "$(dirname "$0")/.."
. tests/e2e/netns.sh
why=$(e2e_unsupported)
if [ -n "$why" ]; then
	echo "live demo: cannot run here ($why)" >&2
	exit 1
fi
trap 'e2e_down; rm -rf "$E2E_DIR"' EXIT
trap 'echo; echo "interrupted: tearing down"; exit 130' INT TERM

say() { printf '\n== %s\n' "$*"; }
client() { printf '   client: %s\n' "$*"; }
show_fetch() { # host addr path
	local got rc
	got=$(FETCH_TIMEOUT=4 fetch "$NS_C0" "$1" "$2" "$3")
	rc=$?
	if [ $rc -eq 28 ]; then
		client "GET http://$1$3 -> nothing came back within 4 s"
	elif [ $rc -ne 0 ]; then
		client "GET http://$1$3 -> curl failed ($rc)"
	else
		set -- "$1" "$2" "$3" $got
		if [ "$4" = 302 ]; then
			client "GET http://$1$3 -> 302 Found, Location: $6"
		else
			client "GET http://$1$3 -> $4, $5 bytes"
		fi
	fi
}
show_flow() { # addr
	local b
	b=$(BANNER_TIMEOUT=3 banner "$NS_C0" "$1")
	[ -n "$b" ] && client "TCP $1:7000 -> \"$b\"" || client "TCP $1:7000 -> no connection"
}

say "Building the router, a client on br0 (MAC $MAC_C0), a client on br1 and the servers"
e2e_up || exit 1
echo "   WAN delay: $E2E_WAN_DELAY"
e2e_rated tests/e2e/test.policy || exit 1
e2e_dnshookd --log-level 7 || exit 1
echo "   dnshook-rated and dnshookd are running; control files at $CTL"

say "Warning page on (echo 1 > wl_warning_page)"
echo 1 >"$CTL/wl_warning_page"
show_fetch allowed.test 198.51.100.10 /news
show_fetch blocked.test 198.51.100.20 /games
client "dig flow.test -> $(resolve "$NS_C0" flow.test)"
show_flow 198.51.100.40
client "(no lookup for 198.51.100.50)"
show_flow 198.51.100.50

say "Parental control instead, the client time-blocked (add $MAC_C0 > tblock_proc)"
echo 0 >"$CTL/wl_warning_page"
echo 1 >"$CTL/pcg_proc"
echo "add $MAC_C0" >"$CTL/tblock_proc"
show_fetch allowed.test 198.51.100.10 /homework
show_fetch white.test 198.51.100.30 /school
say "An exemption for the client (+|$MAC_C0 > unblock_proc)"
printf '+|%s' "$MAC_C0" 2>/dev/null >"$CTL/unblock_proc"
show_fetch allowed.test 198.51.100.10 /homework
show_flow 198.51.100.50

say "Status files"
for f in services tables devices counters; do
	sed "s/^/   $f: /" "$CTL/$f"
done

say "The daemon's decisions"
sed 's/^/   /' "$E2E_DIR/rated.log"

say "The filter's log (per-packet tracing left out)"
grep -v -e 'tcphoff' -e ': STATE_' -e '^$' "$E2E_DIR/dnshookd.log" | sed 's/^/   /'

say "Stopping dnshookd (SIGTERM): its rules and control files go with it"
e2e_stop_dnshookd TERM
echo "   rules left: $(r iptables-save -t mangle | grep -c DNSHOOK); control files mounted: $(mountpoint -q "$CTL" && echo yes || echo no)"
