#!/usr/bin/env bash
# Flows that are not HTTP, through dnshookd with real clients, dnsmasq and
# servers: the warning page's flows to resolved, unresolved and blocked
# servers and its narrowing of IPv6; parental control's time block,
# exemption (and its expiry) and the HTTPS flush. Usage: flows.sh BUILD_DIR
set -u
E2E_BUILD=$(realpath "$1")
. "$(dirname "$0")/netns.sh"
e2e_begin
BANNER="banner from the flow service"

e2e_rated "$(dirname "$0")/test.policy"
e2e_dnshookd --log-level 7
echo 1 >"$CTL/wl_warning_page"

# Warning page: client, name looked up first (- for none), server, answer.
while read -r ns name addr want; do
	client=$([ "$ns" = c0 ] && echo "$NS_C0" || echo "$NS_C1")
	[ "$name" != - ] && resolve "$client" "$name" >/dev/null
	[ "$want" = banner ] && want=$BANNER || want=
	expect "WP: $ns to $addr after looking up $name" "$want" "$(banner "$client" "$addr")"
done <<'ROWS'
c0 flow.test 198.51.100.40 banner
c0 - 198.51.100.50 none
c0 badflow.test 198.51.100.60 none
c1 - 198.51.100.50 banner
c0 - 2001:db8:100::40 none
ROWS
expect "WP: DNS over IPv6 still answers" 2001:db8:100::40 \
	"$(c0 dig +short +time=2 +tries=1 @2001:db8:1::2 flow.test AAAA)"
expect_fetch "WP: HTTP over IPv6 still loads" page "$NS_C0" allowed.test 2001:db8:100::10 /v6-web
expect "WP: one rating per rated flow and page" 3 "$(status counters requests)"

# Parental control alone.
echo 0 >"$CTL/wl_warning_page"
echo 1 >"$CTL/pcg_proc"
requests() { status counters requests; }
expect "PC: an unresolved server is only subject to the device lists" "$BANNER" "$(banner "$NS_C0" 198.51.100.50)"
before=$(requests)
resolve "$NS_C0" flow.test >/dev/null
expect "PC: a resolved server's flow passes after rating" "$BANNER" "$(banner "$NS_C0" 198.51.100.40)"
expect "PC: that flow was rated once" $((before + 1)) "$(requests)"
expect "PC: a trusted flow is not rated again" "$BANNER" "$(banner "$NS_C0" 198.51.100.40)"
expect "PC: ... no new request" $((before + 1)) "$(requests)"
printf '=|flush_ssl' >"$CTL/unblock_proc"
expect "PC: the flush is pending" 1 "$(status services flush_pending)"
resolve "$NS_C0" flow.test >/dev/null
expect "PC: the next lookup flushes" 0 "$(status services flush_pending)"
expect "PC: after the flush the flow passes again" "$BANNER" "$(banner "$NS_C0" 198.51.100.40)"
expect "PC: ... after a new rating" $((before + 2)) "$(requests)"
grep -q "flush all ssl tracking" "$E2E_DIR/dnshookd.log" && e2e_ok "PC: the flush is logged" ||
	e2e_fail "PC: no flush line in the log"

before=$(requests)
resolve "$NS_C0" flow.test AAAA >/dev/null
expect "PC: an IPv6 flow to a resolved server passes after rating" "$BANNER" "$(banner "$NS_C0" 2001:db8:100::40)"
[ "$(requests)" -gt "$before" ] && e2e_ok "PC: ... rated" || e2e_fail "PC: the IPv6 flow was not rated"
grep -q 'nd_query failed' "$E2E_DIR/dnshookd.log" && e2e_fail "PC: the client's IPv6 neighbour was not found" ||
	e2e_ok "PC: the client's IPv6 neighbour comes from the kernel"

# Time block, then an exemption through unblock_proc.
echo "add $MAC_C0" >"$CTL/tblock_proc"
expect "PC: the time-blocked device is cut off (flow)" "" "$(BANNER_TIMEOUT=2 banner "$NS_C0" 198.51.100.50)"
FETCH_TIMEOUT=2 expect_fetch "PC: the time-blocked device is cut off (web)" stall "$NS_C0" allowed.test 198.51.100.10 /tb
expect "PC: another device is not" "$BANNER" "$(banner "$NS_C1" 198.51.100.50)"
# A successful add returns -14: the writer sees "Bad address".
err=$(printf '+|%s' "$MAC_C0" 2>&1 >"$CTL/unblock_proc")
expect "PC: granting an exemption fails the write as the handler says" "1 Bad address" "$? ${err##*: }"
left=$(status devices unblock)
[[ $left =~ ^$MAC_C0\ (9000|8999)s$ ]] && e2e_ok "PC: the exemption is listed with 9000 s to run" ||
	e2e_fail "PC: the exemption's line is [$left]"
expect "PC: the exempted device is back (flow)" "$BANNER" "$(banner "$NS_C0" 198.51.100.50)"
expect_fetch "PC: the exempted device is back (web)" page "$NS_C0" allowed.test 198.51.100.10 /exempt

# The exemption expires after 900000 ticks: 9 s at HZ 100000.
e2e_stop_dnshookd TERM
expect "stopped after all that traffic: exit status (under the sanitizers: nothing leaked)" 0 "$?"
e2e_dnshookd --log-level 7 --hz 100000
echo 1 >"$CTL/pcg_proc"
echo "add $MAC_C0" >"$CTL/tblock_proc"
printf '+|%s' "$MAC_C0" 2>/dev/null >"$CTL/unblock_proc"
expect "PC at HZ 100000: exempted" "$BANNER" "$(banner "$NS_C0" 198.51.100.50)"
sleep 10
expect "PC at HZ 100000: cut off again once the exemption expired" "" \
	"$(BANNER_TIMEOUT=2 banner "$NS_C0" 198.51.100.50)"

e2e_finish
