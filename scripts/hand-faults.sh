#!/usr/bin/env bash
# Plants small faults by hand, one at a time, in the code the host and model
# tests guard (rated/, tools/replay/, runtime/, common/, kernel/lib/), which
# scripts/mutants.py does not touch: rebuilds the test programs that cover
# the file, runs their tests, puts the file back, and prints which tests
# failed. Run it on a copy of the tree, or on a clean checkout:
#
#     scripts/hand-faults.sh BUILD_DIR [FAULT-NUMBER...]
#
# Output: one line per fault, "N file: fault -> killed by ..." or "SURVIVED".
set -u
build=${1:?usage: hand-faults.sh BUILD_DIR [N...]}
shift
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top" || exit 1

rated="test_rated dnshook-rated"
replay="test_replay dnshook-replay"
runtime="test_runtime"
live="dnshookd"
kernel="test_kernel test_sim test_forge test_hooks test_core"
# number#file#text#replacement#targets#ctest regex
faults=$(cat <<'ROWS'
1#rated/wire.cpp#len != kRecordLen#len > kRecordLen#RATED#^rated\.
2#rated/wire.cpp#r.service != 4#r.service != 3#RATED#^rated\.
3#rated/wire.cpp#req.service == 2 && is_flow#req.service == 4 && is_flow#RATED#^rated\.
4#rated/wire.cpp#service = req.service + 1#service = req.service#RATED#^rated\.
5#rated/wire.cpp#kRedirectLen - 1)#kRedirectLen)#RATED#^rated\.
6#rated/host_name.cpp#':') == 1#':') >= 1#RATED#^rated\.
7#rated/host_name.cpp#++label > 63#++label > 64#RATED#^rated\.
8#rated/rule_set.cpp#(whole || !pr.exact)#(!pr.exact)#RATED#^rated\.
9#rated/rule_set.cpp#o.prefix.size() < pr.prefix.size()#o.prefix.size() <= pr.prefix.size()#RATED#^rated\.
10#rated/schedule.cpp#now >= start && now < end#now >= start && now <= end#RATED#^rated\.
11#rated/schedule.cpp#(local.tm_wday + 6) % 7#(local.tm_wday + 1) % 7#RATED#^rated\.
12#rated/schedule.cpp#m > 59#m > 60#RATED#^rated\.
13#rated/block_page.cpp#c == '_' || c == '~'#c == '_'#RATED#^rated\.
14#rated/responder.cpp#if (!told_[k]) {#if (true) {#RATED#^rated\.
15#rated/responder.cpp#counters_.answered++;#;#RATED#^rated\.
16#tools/replay/lan.cpp#0xff << (8 - bits)#0xff << (7 - bits)#REPLAY#^replay\.
17#tools/replay/lan.cpp#p.len > max#p.len > max + 1#REPLAY#^replay\.
18#tools/replay/replayer.cpp#std::floor(t * opts_.hz)#std::floor(t * opts_.hz / 10)#REPLAY#^replay\.
19#tools/replay/replayer.cpp#sum_.cut++;#sum_.cut += 0;#REPLAY#^replay\.
20#runtime/ct_tuple.cpp#a < b ? a + b : b + a#a + b#RUNTIME#^runtime\.
21#runtime/ct_tuple.cpp#(t.proto == 0 || #(#RUNTIME#^runtime\.
22#runtime/ct_tuple.cpp#off + 4 > len#off + 2 > len#RUNTIME#^runtime\.
23#runtime/options.cpp#parse_uint(optarg, 1, 100000, v)#parse_uint(optarg, 0, 100000, v)#RUNTIME#^runtime\.
24#runtime/options.cpp#if (optind < argc) {#if (optind < argc - 1) {#RUNTIME#^runtime\.
25#kernel/lib/checksum.cpp#return a + (a < b);#return a;#KERNEL#^(kernel|sim|forge|hooks|core)\.
26#kernel/lib/checksum.cpp#s += htonl(proto);#s += proto;#KERNEL#^(kernel|sim|forge|hooks|core)\.
27#kernel/lib/skbuff.cpp#len > (unsigned int)(skb->end - skb->tail)#len > (unsigned int)(skb->end - skb->tail) + 1#KERNEL#^(kernel|sim|forge|hooks|core)\.
28#kernel/lib/skbuff.cpp#len > (unsigned int)(skb->data - skb->head)#len >= (unsigned int)(skb->data - skb->head)#KERNEL#^(kernel|sim|forge|hooks|core)\.
29#kernel/lib/skbuff.cpp#(unsigned int)delta > skb->data_len#(unsigned int)delta > skb->data_len + 1#KERNEL#^(kernel|sim|forge|hooks|core)\.
30#kernel/lib/skbuff.cpp#offset > (int)skb->len - len ||#offset >= (int)skb->len - len ||#KERNEL#^(kernel|sim|forge|hooks|core)\.
31#kernel/lib/netlink.cpp#!(us.groups & (1u << (group - 1)))#!(us.groups & (1u << group))#KERNEL#^(kernel|sim|forge|hooks|core)\.
32#kernel/lib/netlink.cpp#us.queue.size() >= us.rcvbuf) {\n\t\t\tfailure#us.queue.size() > us.rcvbuf) {\n\t\t\tfailure#KERNEL#^(kernel|sim|forge|hooks|core)\.
33#kernel/lib/netlink.cpp#NETLINK_CB(skb).pid = it->second.pid;#;#KERNEL#^(kernel|sim|forge|hooks|core)\.
34#common/escape.cpp#keep_space ? 0x20 : 0x21#keep_space ? 0x20 : 0x20#RATED#^rated\.
35#rated/policy_parse.cpp#!line_end) || c == 0x7f)#!line_end))#RATED#^rated\.
36#rated/policy_parse.cpp#i + 1 < text.size() && text[i + 1]#i + 2 < text.size() && text[i + 1]#RATED#^rated\.
37#common/escape.cpp#keep_space ? 0x20 : 0x21#keep_space ? 0x10 : 0x21#RUNTIME#^runtime\.
38#runtime/queue.cpp#fail_open ? NFQA_CFG_F_FAIL_OPEN : 0#(fail_open || true) ? NFQA_CFG_F_FAIL_OPEN : 0#LIVE#^e2e\.lifecycle
39#runtime/queue.cpp#fail_open ? NFQA_CFG_F_FAIL_OPEN : 0#(fail_open && false) ? NFQA_CFG_F_FAIL_OPEN : 0#LIVE#^e2e\.lifecycle
ROWS
)

plant() { # file text replacement: exactly one occurrence, or fail
	python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[1], sys.argv[2].replace("\\n", "\n").replace("\\t", "\t"), \
    sys.argv[3].replace("\\n", "\n").replace("\\t", "\t")
src = open(path).read()
if src.count(old) != 1:
    sys.exit(f"{path}: '{old}' occurs {src.count(old)} times")
open(path, "w").write(src.replace(old, new))
PY
}

# An interrupted run must not leave a fault planted in the tree.
cur=
trap '[ -n "$cur" ] && [ -f "$cur.orig" ] && mv "$cur.orig" "$cur"' EXIT
trap 'exit 130' INT TERM

while IFS='#' read -r n file old new group regex; do
	[ -n "$n" ] || continue
	if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$n"; then continue; fi
	case $group in RATED) targets=$rated ;; REPLAY) targets=$replay ;; RUNTIME) targets=$runtime ;; LIVE) targets=$live ;; KERNEL) targets=$kernel ;; esac
	cp "$file" "$file.orig"
	cur=$file
	what="$file: '$old' -> '$new'"
	if ! plant "$file" "$old" "$new"; then
		mv "$file.orig" "$file"
		echo "$n $what -> NOT PLANTED"
		continue
	fi
	# shellcheck disable=SC2086
	if ! nice -n 10 cmake --build "$build" --target $targets >/tmp/hand-faults.build.$$ 2>&1; then
		mv "$file.orig" "$file"
		echo "$n $what -> DOES NOT BUILD"
		continue
	fi
	failed=$(cd "$build" && timeout 600 ctest -R "$regex" -E 'hundred_thousand|capture_in_namespaces' -j2 \
		--timeout 120 2>&1 | sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\) .*/\1/p' | sort -u | xargs)
	mv "$file.orig" "$file"
	cur=
	touch "$file"
	echo "$n $what -> ${failed:-SURVIVED}"
done <<<"$faults"
# Leave the build matching the sources.
nice -n 10 cmake --build "$build" --target $rated $replay $runtime $live $kernel >/dev/null 2>&1
