# The end-to-end topology, sourced by the tests and the live demo.
#
#   client0 ----+                                    +--- server: web :80, flows :7000,
#   10.10.0.2   |  br0 10.10.0.1                     |    dnsmasq :53
#               +-[ router: dnshookd, dnshook-rated ]-+    192.0.2.2, 2001:db8:1::2
#   client1 ----+  br1 10.11.0.1     wan0 192.0.2.1  |    sites 198.51.100.0/24,
#   10.11.0.2   |           (netem 20 ms if present) |          2001:db8:100::/64
#
# IPv6 beside every IPv4 address: fd00:10::/64 on br0, fd00:11::/64 on
# br1, 2001:db8:1::/64 on the WAN. Each namespace's name ends in the
# caller's id, so runs in parallel do not meet; e2e_down removes them all.

E2E_ID=${E2E_ID:-$$}
NS_R=dh-rtr-$E2E_ID
NS_C0=dh-c0-$E2E_ID
NS_C1=dh-c1-$E2E_ID
NS_S=dh-srv-$E2E_ID
MAC_C0=02:00:00:00:10:02
MAC_C1=02:00:00:00:11:02
E2E_DIR=${E2E_DIR:-$(mktemp -d /tmp/dnshook-e2e.XXXXXX)}

# Sites: name, IPv4, IPv6 (host part after 2001:db8:100::).
E2E_SITES="allowed.test:10 blocked.test:20 white.test:30 flow.test:40 badflow.test:60"
UNRESOLVED4=198.51.100.50
UNRESOLVED6=2001:db8:100::50

in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }
r() { in_ns "$NS_R" "$@"; }
c0() { in_ns "$NS_C0" "$@"; }
c1() { in_ns "$NS_C1" "$@"; }
srv() { in_ns "$NS_S" "$@"; }

# Why end-to-end tests cannot run here, or nothing.
e2e_unsupported() {
	[ "$(id -u)" -eq 0 ] || { echo "not running as root"; return; }
	ip netns add "dh-probe-$$" 2>/dev/null || { echo "network namespaces cannot be created"; return; }
	ip netns del "dh-probe-$$"
	[ -e /dev/fuse ] || { echo "/dev/fuse is missing"; return; }
	local t
	for t in iptables ip6tables dnsmasq curl dig python3 nsenter tc; do
		command -v "$t" >/dev/null || { echo "$t is not installed"; return; }
	done
}

e2e_pids=()
e2e_bg() { "$@" & e2e_pids+=($!); }

e2e_down() {
	local p ns
	for p in "${e2e_pids[@]}"; do kill "$p" 2>/dev/null; done
	for p in "${e2e_pids[@]}"; do wait "$p" 2>/dev/null; done
	e2e_pids=()
	for ns in "$NS_C0" "$NS_C1" "$NS_S" "$NS_R"; do
		ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null
		ip netns del "$ns" 2>/dev/null
	done
	return 0
}

e2e_link() { # ns-a dev-a ns-b dev-b: a veth pair, renamed inside
	ip link add "$2-$E2E_ID" netns "$1" type veth peer name "$4-$E2E_ID" netns "$3"
	in_ns "$1" ip link set "$2-$E2E_ID" name "$2"
	in_ns "$3" ip link set "$4-$E2E_ID" name "$4"
}

e2e_up() {
	local ns
	for ns in "$NS_R" "$NS_C0" "$NS_C1" "$NS_S"; do
		ip netns add "$ns"
		in_ns "$ns" ip link set lo up
		in_ns "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0
	done
	r sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1
	e2e_link "$NS_R" p0 "$NS_C0" eth0
	e2e_link "$NS_R" p1 "$NS_C1" eth0
	e2e_link "$NS_R" wan0 "$NS_S" eth0
	c0 ip link set eth0 address $MAC_C0
	c1 ip link set eth0 address $MAC_C1
	local i
	for i in 0 1; do
		r ip link add br$i type bridge
		r ip link set p$i master br$i
		r ip link set p$i up
		r ip link set br$i up
		r ip addr add 10.1$i.0.1/24 dev br$i
		r ip addr add fd00:1$i::1/64 dev br$i nodad
		in_ns "$( [ $i = 0 ] && echo "$NS_C0" || echo "$NS_C1")" sh -c "
			ip link set eth0 up
			ip addr add 10.1$i.0.2/24 dev eth0
			ip addr add fd00:1$i::2/64 dev eth0 nodad
			ip route add default via 10.1$i.0.1
			ip -6 route add default via fd00:1$i::1"
	done
	r ip link set wan0 up
	r ip addr add 192.0.2.1/24 dev wan0
	r ip addr add 2001:db8:1::1/64 dev wan0 nodad
	r ip route add 198.51.100.0/24 via 192.0.2.2
	r ip -6 route add 2001:db8:100::/64 via 2001:db8:1::2
	# A WAN's delay, where the kernel has netem.
	E2E_WAN_DELAY="20 ms"
	r tc qdisc add dev wan0 root netem delay 20ms 2>/dev/null && srv tc qdisc add dev eth0 root netem delay 0ms 2>/dev/null ||
		E2E_WAN_DELAY="none (this kernel has no netem)"
	srv ip link set eth0 up
	srv ip addr add 192.0.2.2/24 dev eth0
	srv ip addr add 2001:db8:1::2/64 dev eth0 nodad
	srv ip route add 10.0.0.0/8 via 192.0.2.1
	srv ip -6 route add fd00::/8 via 2001:db8:1::1
	local site hosts=()
	for site in $E2E_SITES ${UNRESOLVED4##*.}; do
		local name=${site%%:*} n=${site##*:}
		srv ip addr add 198.51.100.$n/32 dev lo
		srv ip addr add 2001:db8:100::$n/128 dev lo
		[ "$name" != "$n" ] && hosts+=("--host-record=$name,198.51.100.$n,2001:db8:100::$n")
	done
	e2e_bg ip netns exec "$NS_S" python3 "$(dirname "${BASH_SOURCE[0]}")/servers.py" >"$E2E_DIR/servers.log" 2>&1
	e2e_bg ip netns exec "$NS_S" dnsmasq --keep-in-foreground --no-resolv --no-hosts --bind-interfaces \
		--listen-address=192.0.2.2 --listen-address=2001:db8:1::2 --user=root \
		--pid-file="$E2E_DIR/dnsmasq.pid" --log-queries --log-facility=- "${hosts[@]}" \
		>"$E2E_DIR/dnsmasq.log" 2>&1
	e2e_wait 10 "servers" grep -q ready "$E2E_DIR/servers.log"
	e2e_wait 10 "dnsmasq" srv dig +short +time=1 +tries=1 @192.0.2.2 allowed.test
}

# e2e_wait SECONDS WHAT COMMAND...: retries COMMAND until it succeeds.
e2e_wait() {
	local secs=$1 what=$2 i
	shift 2
	for ((i = 0; i < secs * 10; i++)); do
		"$@" >/dev/null 2>&1 && return 0
		sleep 0.1
	done
	echo "timed out after ${secs}s waiting for $what" >&2
	return 1
}

# Starts dnshook-rated with a policy in the router namespace.
RATED_PID=
e2e_rated() { # policy-file [options...]
	local policy=$1
	shift
	ip netns exec "$NS_R" "$E2E_BUILD/rated/dnshook-rated" --policy "$policy" "$@" \
		>"$E2E_DIR/rated.out" 2>>"$E2E_DIR/rated.log" &
	RATED_PID=$!
	e2e_pids+=($RATED_PID)
	e2e_wait 10 "dnshook-rated" grep -q ready "$E2E_DIR/rated.out"
	: >"$E2E_DIR/rated.out"
}

# Starts dnshookd in the router's network namespace only, so that its
# control files are visible to the test (ip netns exec would give it a
# mount namespace of its own).
DNSHOOKD_PID=
CTL=$E2E_DIR/ctl
e2e_dnshookd() { # options...
	local before
	before=$(grep -c "dnshookd: ready" "$E2E_DIR/dnshookd.log" 2>/dev/null)
	nsenter --net=/run/netns/"$NS_R" "$E2E_BUILD/runtime/dnshookd" --control "$CTL" "$@" \
		2>>"$E2E_DIR/dnshookd.log" &
	DNSHOOKD_PID=$!
	e2e_pids+=($DNSHOOKD_PID)
	e2e_wait 15 "dnshookd" e2e_ready_above "${before:-0}" ||
		{ tail -5 "$E2E_DIR/dnshookd.log" >&2; return 1; }
}

e2e_ready_above() { test "$(grep -c "dnshookd: ready" "$E2E_DIR/dnshookd.log")" -gt "$1"; }

e2e_stop_dnshookd() { # signal
	kill -"${1:-TERM}" "$DNSHOOKD_PID" 2>/dev/null
	wait "$DNSHOOKD_PID" 2>/dev/null
	local rc=$?
	DNSHOOKD_PID=
	return $rc
}

# ---- checks ----
E2E_FAILS=0
e2e_ok() { echo "ok   - $*"; }
e2e_fail() {
	echo "FAIL - $*"
	E2E_FAILS=$((E2E_FAILS + 1))
}
# expect WHAT EXPECTED ACTUAL
expect() {
	if [ "$2" == "$3" ]; then e2e_ok "$1"; else e2e_fail "$1: expected [$2], got [$3]"; fi
}
# status FILE KEY: the value after KEY in a status file ("" if absent)
status() { awk -v k="$2" '$1 == k { $1 = ""; sub(/^ /, ""); print; exit }' "$CTL/$1" 2>/dev/null; }

# Prints the logs when something failed; the exit status of the test.
e2e_finish() {
	if [ "$E2E_FAILS" -ne 0 ]; then
		local f
		for f in dnshookd.log rated.log servers.log; do
			echo "---- last lines of $f ----"
			tail -40 "$E2E_DIR/$f" 2>/dev/null
		done
		echo "$E2E_FAILS check(s) failed"
		return 1
	fi
	echo "all checks passed"
	return 0
}

# The standard opening of a test: skip where impossible, build the
# topology, tear it down on every exit path.
e2e_begin() {
	E2E_BUILD=${E2E_BUILD:?the build directory}
	local why
	why=$(e2e_unsupported)
	if [ -n "$why" ]; then
		echo "SKIP: end-to-end tests need root, network namespaces and their tools: $why"
		rm -rf "$E2E_DIR"
		exit 77
	fi
	trap 'e2e_down; rm -rf "$E2E_DIR"' EXIT
	trap 'exit 130' INT TERM
	e2e_up || { echo "could not build the topology"; exit 1; }
}

# fetch NS HOST ADDR PATH [curl options]: prints "code size redirect" of a
# page fetched by address with the Host header set; curl's exit status.
fetch() {
	local ns=$1 host=$2 addr=$3 path=$4
	shift 4
	local url="http://$addr$path"
	[[ $addr == *:* ]] && url="http://[$addr]$path"
	in_ns "$ns" curl -sS -m "${FETCH_TIMEOUT:-5}" -H "Host: $host" -o "$E2E_DIR/body" \
		-w '%{http_code} %{size_download} %{redirect_url}' "$@" "$url" 2>/dev/null
}
# expect_fetch WHAT WANT NS HOST ADDR PATH [curl options]: checks a fetch.
# WANT "page": the whole page, its bytes as served; "stall": curl times
# out; "blocked": the block page's redirect; else curl's status and output.
expect_fetch() {
	local what=$1 want=$2 got rc
	shift 2
	got=$(fetch "$@")
	rc=$?
	case $want in
	page)
		expect "$what" "0 200 65536 " "$rc $got"
		page_ok "$2" "$4" && e2e_ok "$what: bytes as served" || e2e_fail "$what: bytes differ" ;;
	stall) expect "$what" 28 "$rc" ;;
	blocked) expect "$what" "0 302 0 http://blocked.lan/?host=$2&service=wp" "$rc $got" ;;
	*) expect "$what" "$want" "$rc $got" ;;
	esac
}
# page_ok HOST PATH: whether the last fetched body is the server's page.
page_ok() {
	python3 "$(dirname "${BASH_SOURCE[0]}")/servers.py" page "$1$2" | cmp -s - "$E2E_DIR/body"
}
# banner NS ADDR: what the flow service on port 7000 says ("" when the
# connection never comes up).
banner() { in_ns "$1" nc -w "${BANNER_TIMEOUT:-4}" "$2" 7000 </dev/null 2>/dev/null; }
# resolve NS NAME [TYPE]: a lookup through the router, as a client makes it.
resolve() { in_ns "$1" dig +short +time=2 +tries=1 @192.0.2.2 "$2" "${3:-A}"; }
