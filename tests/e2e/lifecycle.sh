#!/usr/bin/env bash
# dnshookd's life on the router: control files and their modes, rules that
# follow the switch files while connections are open, a silent, slow,
# restarted, doubled or garbled daemon, SIGKILL and restart with the
# bypass keeping traffic flowing, a hung dnshookd with a full queue, one
# instance per namespace, and nothing left behind after a clean stop.
# Usage: lifecycle.sh BUILD_DIR
set -u
E2E_BUILD=$(realpath "$1")
. "$(dirname "$0")/netns.sh"
e2e_begin
POLICY=$(dirname "$0")/test.policy
D=$E2E_BUILD/runtime/dnshookd

# The command line.
"$D" --help | grep -q -- "--fail-closed"
expect "--help" 0 "$?"
"$D" --hz 0 2>/dev/null
expect "--hz 0 is refused" 2 "$?"
"$D" --bogus 2>/dev/null
expect "an unknown option is refused" 2 "$?"

stop_rated() { kill "$RATED_PID"; wait "$RATED_PID" 2>/dev/null; }
e2e_rated "$POLICY"
e2e_dnshookd --log-level 7
nsenter --net=/run/netns/"$NS_R" "$D" --control "$E2E_DIR/ctl2" 2>"$E2E_DIR/second.err"
expect "a second instance in the namespace refuses to start" \
	"3 dnshookd: another dnshookd runs in this network namespace" "$? $(cat "$E2E_DIR/second.err")"

modes=$(cd "$CTL" && stat -c '%n %a' wl_warning_page pcg_proc tblock_proc unblock_proc services tables devices counters | xargs)
expect "the control files' modes" "wl_warning_page 644 pcg_proc 644 tblock_proc 644 unblock_proc 644 services 444 tables 444 devices 444 counters 444" "$modes"

# Writes return what the handlers return.
while IFS=';' read -r file text want; do
	err=$(printf '%s' "$text" 2>&1 >"$CTL/$file")
	expect "write [$text] to $file" "$want" "$? ${err##*: }"
done <<'ROWS'
wl_warning_page;x;0 
wl_warning_page;100;0 
tblock_proc;add 01:00:00:00:00:00;1 Bad address
tblock_proc;add 00:00:00:00:00:00;1 Bad address
unblock_proc;no bar here;1 Bad address
unblock_proc;-|02:00:00:00:99:99;0 
ROWS
expect "the switch writes changed nothing" "off" "$(status services wp)"
long=$(printf 'add 00:11:22:33:44:55%0300d' 0)
err=$(printf '%s' "$long" 2>&1 >"$CTL/tblock_proc")
expect "a 321-byte tblock command" "1 Bad address" "$? ${err##*: }"

# Rules follow the switches, while a download is under way.
nfq() { r "$1" -t mangle -S "$2" | grep -c NFQUEUE; }
rules_now() { echo "$(nfq iptables DNSHOOK_PRE) $(nfq iptables DNSHOOK_FWD) $(nfq ip6tables DNSHOOK_PRE) $(nfq ip6tables DNSHOOK_FWD) $(r iptables -t mangle -S DNSHOOK_FWD | grep -c 'br1+ -j RETURN')"; }
expect "services off: nothing queued" "0 0 0 0 0" "$(rules_now)"
fetch "$NS_C0" allowed.test 198.51.100.10 /slow --limit-rate 16k >"$E2E_DIR/slow.out" &
slow=$!
while read -r wp pc want; do
	echo "$wp" >"$CTL/wl_warning_page"
	echo "$pc" >"$CTL/pcg_proc"
	expect "WP $wp PC $pc: queued rules (pre4 fwd4 pre6 fwd6 br1-returns)" "$want" "$(rules_now)"
	sleep 0.5
done <<'ROWS'
1 0 2 1 2 1 2
1 1 2 1 2 1 0
0 1 2 1 2 1 0
0 0 0 0 0 0 0
1 0 2 1 2 1 2
ROWS
wait $slow
expect "a download across every switch completes whole" "0 200 65536 " "$? $(cat "$E2E_DIR/slow.out")"

# The daemon: silent, slow, restarted, answering twice, garbled.
stop_rated
FETCH_TIMEOUT=2 expect_fetch "daemon silent: a new page waits for its rating" stall "$NS_C0" allowed.test 198.51.100.10 /silent
expect "daemon silent: unrelated flows go on" "banner from the flow service" "$(banner "$NS_C1" 198.51.100.50)"
e2e_rated "$POLICY" --delay 700
t0=$(date +%s%N)
expect_fetch "daemon slow: the page loads" page "$NS_C0" allowed.test 198.51.100.10 /slow-daemon
ms=$((($(date +%s%N) - t0) / 1000000))
((ms >= 700)) && e2e_ok "daemon slow: after the 700 ms delay ($ms ms)" ||
	e2e_fail "daemon slow: loaded in $ms ms, before the delay"
stop_rated
e2e_rated "$POLICY"
expect_fetch "daemon restarted: verdicts again" blocked "$NS_C0" blocked.test 198.51.100.20 /restarted
e2e_rated "$POLICY"
before=$(status counters replies)
expect_fetch "two daemons answering: the page" page "$NS_C0" allowed.test 198.51.100.10 /twice
sleep 0.3
expect "two daemons answering: two replies taken" $((before + 2)) "$(status counters replies)"
port=$(status counters channel_port)
ip netns exec "$NS_R" python3 "$(dirname "$0")/listen.py" 5 >"$E2E_DIR/listen.out" 2>&1 &
listener=$!
e2e_wait 5 "the listener" grep -q listening "$E2E_DIR/listen.out"
fetch "$NS_C0" allowed.test 198.51.100.10 /wire >/dev/null
wait $listener
expect "a request on the wire: to group 1 from dnshookd's port, 576 bytes behind the header, as the filter built it" \
	"from $port bytes 592 nlmsg_len 592 type 0 flags 0 seq 0 pid 0 kind 0 service 2 family 2 src 10.10.0.2 dst 198.51.100.10 dport 80 url /wire host allowed.test" \
	"$(tail -1 "$E2E_DIR/listen.out")"
r python3 - "$port" <<'PY'
import os, socket, struct, sys
s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 2)
s.bind((0, 0))
to = (int(sys.argv[1]), 0)
s.sendto(b"\x01" * 15, to)                                     # shorter than a header
s.sendto(struct.pack("=IHHII", 4000, 0, 0, 0, 0) + b"\0" * 8, to)  # claims more than it holds
s.sendto(struct.pack("=IHHII", 592, 0, 0, 0, 0) + os.urandom(576), to)
PY
sleep 0.3
grep -q '^<7>\[handle_packet\]: skb(15) < nlhdr(16)$' "$E2E_DIR/dnshookd.log" &&
	e2e_ok "garbage: the short buffer is logged as the filter logs it" || e2e_fail "garbage: no short-buffer line"
expect_fetch "garbage: dnshookd goes on rating" blocked "$NS_C0" blocked.test 198.51.100.20 /after-garbage

# SIGKILL: the rules stay, the bypass lets traffic through, a restart
# replaces the stale chains; a download under way goes on throughout.
fetch "$NS_C0" allowed.test 198.51.100.10 /across-kill --limit-rate 16k >"$E2E_DIR/slow.out" &
slow=$!
sleep 1
e2e_stop_dnshookd KILL
e2e_wait 5 "the control files to go" sh -c "! mountpoint -q '$CTL'"
expect "after SIGKILL: the control files are unmounted" 32 "$(mountpoint -q "$CTL"; echo $?)"
expect "after SIGKILL: the rules stay (pre4 fwd4 pre6 fwd6 br1-returns)" "2 1 2 1 2" "$(rules_now)"
expect_fetch "after SIGKILL: traffic flows, unfiltered (bypass)" page "$NS_C0" blocked.test 198.51.100.20 /bypass
e2e_dnshookd --log-level 7
jumps="$(r iptables -t mangle -S | grep -c -- '-j DNSHOOK_') $(r ip6tables -t mangle -S | grep -c -- '-j DNSHOOK_')"
expect "restarted: one jump per chain and family" "2 2" "$jumps"
expect "restarted: services off, nothing queued" "0 0 0 0 0" "$(rules_now)"
wait $slow
expect "a download under way across SIGKILL and restart completes whole" "0 200 65536 " "$? $(cat "$E2E_DIR/slow.out")"
echo 1 >"$CTL/wl_warning_page"
expect_fetch "restarted: filtering again" blocked "$NS_C0" blocked.test 198.51.100.20 /after-restart

# A hung dnshookd (SIGSTOP) holds what it was given. Once its queue is
# full (4,096 packets) the kernel lets the rest by unfiltered, or drops it
# with --fail-closed; SIGCONT, and it judges what it held and filters again.
syns() { # N SYNs to port 80 from client0, from ports no socket holds
	c0 python3 - "$1" <<'PY'
import socket, struct, sys
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_TCP)
for i in range(int(sys.argv[1])):
    s.sendto(struct.pack("!HHIIBBHHH", 20000 + i, 80, i, 0, 5 << 4, 0x02, 65535, 0, 0), ("198.51.100.10", 0))
PY
}
for mode in fail-open fail-closed; do
	if [ $mode = fail-closed ]; then
		e2e_stop_dnshookd TERM
		expect "stopped after the flood: exit status (under the sanitizers: nothing leaked)" 0 "$?"
		e2e_dnshookd --fail-closed
		echo 1 >"$CTL/wl_warning_page"
	fi
	kill -STOP "$DNSHOOKD_PID"
	FETCH_TIMEOUT=2 expect_fetch "hung, $mode, queue not full: a page waits" stall "$NS_C0" blocked.test 198.51.100.20 /hung
	syns 4200
	if [ $mode = fail-open ]; then
		expect_fetch "hung, queue full: traffic flows, unfiltered" page "$NS_C0" blocked.test 198.51.100.20 /fail-open
	else
		FETCH_TIMEOUT=2 expect_fetch "hung, --fail-closed, queue full: queued traffic stops" stall "$NS_C0" allowed.test 198.51.100.10 /fail-closed
		expect "hung, --fail-closed: traffic outside the rules goes on" "banner from the flow service" "$(banner "$NS_C1" 198.51.100.50)"
	fi
	kill -CONT "$DNSHOOKD_PID"
	expect_fetch "hung, $mode, resumed: filtering again" blocked "$NS_C0" blocked.test 198.51.100.20 /resumed
done

# Without the bypass, a dead dnshookd stops what it would have seen.
e2e_stop_dnshookd TERM
e2e_dnshookd --no-bypass
echo 1 >"$CTL/wl_warning_page"
e2e_stop_dnshookd KILL
FETCH_TIMEOUT=2 expect_fetch "--no-bypass, killed: queued traffic stops" stall "$NS_C0" allowed.test 198.51.100.10 /no-bypass
expect "--no-bypass, killed: traffic outside the rules goes on" "banner from the flow service" "$(banner "$NS_C1" 198.51.100.50)"

# A fatal error after the rules went in takes them out again.
nsenter --net=/run/netns/"$NS_R" "$D" --control /proc/no/such/dir 2>"$E2E_DIR/fatal.err"
expect "fatal error: exit status and message" "1 dnshookd: --control /proc/no/such/dir: No such file or directory" \
	"$? $(tail -1 "$E2E_DIR/fatal.err")"
expect "fatal error: no rule or chain left" 0 "$(r iptables-save -t mangle | grep -c DNSHOOK)"

# A clean stop leaves nothing behind.
e2e_dnshookd
e2e_stop_dnshookd TERM
expect "clean stop: exit status" 0 "$?"
left="$(r iptables-save -t mangle | grep -c DNSHOOK) $(r ip6tables-save -t mangle | grep -c DNSHOOK)"
expect "clean stop: no rule or chain left" "0 0" "$left"
expect "clean stop: no mount left" 32 "$(mountpoint -q "$CTL"; echo $?)"
expect "clean stop: no process left" "" "$(pgrep -f "dnshookd --control $CTL|fusermount3.*$CTL")"
expect "clean stop: no queue bound" "" "$(r cat /proc/net/netfilter/nfnetlink_queue)"
expect_fetch "clean stop: traffic flows unfiltered" page "$NS_C0" blocked.test 198.51.100.20 /after-stop

e2e_finish
