#!/usr/bin/env bash
# Makes the decoder test captures dns.pcap and http.pcap from real programs:
# dig and wget against dnsmasq, curl, wget and a raw pipelining client
# against Python's http.server. Run by hand as root; the tests only read
# the committed captures.
#
#   +------------- ns dh-cli -------------+      +------------- ns dh-srv -------------+
#   | dig, curl, wget, tcpdump            |      | dnsmasq :53, http.server :80 :8080  |
#   | veth-c 10.53.0.2/24 fd00:53::2/64   +------+ veth-s 10.53.0.1/24 fd00:53::1/64   |
#   +-------------------------------------+      +-------------------------------------+
#
# No routes leave the two namespaces and dnsmasq has no upstream server.
set -euo pipefail

out=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
chmod 755 "$work"  # dnsmasq reads the hosts file as nobody
pids=()

cleanup() {
	for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
	sleep 0.5
	ip netns del dh-cli 2>/dev/null || true
	ip netns del dh-srv 2>/dev/null || true
	rm -rf "$work" /etc/netns/dh-cli
}
trap cleanup EXIT

# Background jobs are started with ip netns exec itself, so that $! is the
# program and not a subshell.
cli() { ip netns exec dh-cli "$@"; }
srv() { ip netns exec dh-srv "$@"; }

ip netns add dh-cli
ip netns add dh-srv
ip link add veth-c netns dh-cli type veth peer name veth-s netns dh-srv
cli ip link set lo up
srv ip link set lo up
cli ip addr add 10.53.0.2/24 dev veth-c
srv ip addr add 10.53.0.1/24 dev veth-s
cli ip -6 addr add fd00:53::2/64 dev veth-c nodad
srv ip -6 addr add fd00:53::1/64 dev veth-s nodad
cli ip link set veth-c up
srv ip link set veth-s up

# Names dnsmasq answers for; everything else under test. is NXDOMAIN.
bulk=()
for i in $(seq 1 31); do bulk+=("10.53.2.$i"); done
{
	echo "10.53.1.21 multi.example.test"
	echo "10.53.1.22 multi.example.test"
	echo "10.53.1.23 multi.example.test"
	echo "fd00:53:1::21 multi.example.test"
	for a in "${bulk[@]}"; do echo "$a bulk.example.test"; done
	for i in $(seq 1 29); do echo "10.53.3.$i many.example.test"; done
} >"$work/hosts"
ip netns exec dh-srv dnsmasq --keep-in-foreground --no-resolv --no-hosts --bind-interfaces \
	--listen-address=10.53.0.1 --listen-address=fd00:53::1 --port=53 \
	--local=/test/ --addn-hosts="$work/hosts" --pid-file="$work/dnsmasq.pid" \
	--host-record=www.example.test,10.53.1.10,fd00:53:1::10 --host-record=srv.example.test,10.53.0.1 \
	--cname=alias.example.test,step.example.test --cname=step.example.test,www.example.test \
	--log-facility=- --quiet-dhcp &
pids+=($!)

mkdir -p "$work/site/dir" && echo hello >"$work/site/index.html" && echo x >"$work/site/dir/page.html"
ip netns exec dh-srv python3 -m http.server 80 --bind :: --directory "$work/site" >/dev/null 2>&1 &
pids+=($!)
ip netns exec dh-srv python3 -m http.server 8080 --bind :: --directory "$work/site" >/dev/null 2>&1 &
pids+=($!)

mkdir -p /etc/netns/dh-cli
echo "nameserver 10.53.0.1" >/etc/netns/dh-cli/resolv.conf
sleep 1.5

capture() {  # file filter
	ip netns exec dh-cli tcpdump -i veth-c -U -s 0 -w "$work/$1" "$2" 2>/dev/null &
	tcpdump_pid=$!
	sleep 1
}
finish() {  # file
	sleep 1
	kill -INT "$tcpdump_pid"
	wait "$tcpdump_pid" || true
	cp "$work/$1" "$out/$1"
}

capture dns.pcap "udp port 53"
d() { cli dig +tries=1 +time=2 "$@" >/dev/null || true; }
d @10.53.0.1 www.example.test A
d @10.53.0.1 www.example.test AAAA
d @10.53.0.1 WwW.ExAmPlE.TeSt A
d @10.53.0.1 alias.example.test A
d @10.53.0.1 alias.example.test AAAA
d @10.53.0.1 multi.example.test A
d @10.53.0.1 multi.example.test AAAA
d @10.53.0.1 many.example.test A
d @10.53.0.1 bulk.example.test A
d @10.53.0.1 nothere.example.test A
d @10.53.0.1 +noedns MULTI.example.test A
d @10.53.0.1 CH TXT version.bind
d @fd00:53::1 www.example.test AAAA
d @fd00:53::1 alias.example.test A
cli wget -q -O /dev/null --tries=1 http://multi.example.test/ || true
finish dns.pcap

capture http.pcap "tcp port 80 or tcp port 8080"
c() { cli curl -s -o /dev/null --max-time 3 --resolve www.example.test:80:10.53.0.1 \
	--resolve www.example.test:8080:10.53.0.1 "$@" || true; }
c http://www.example.test/
c http://www.example.test:8080/dir/page.html?q=1\&r=two
c -I http://www.example.test/index.html
c -X POST -d 'name=value&x=1' http://www.example.test/form
c -X PUT --data-binary 'put body' http://www.example.test:8080/upload.txt
c -x http://10.53.0.1:80 http://proxied.example.test/absolute/path
c -H 'Host: www.Example.TEST:80' http://10.53.0.1/case
c -g 'http://[fd00:53::1]:8080/v6'
cli wget -q -O /dev/null --tries=1 http://srv.example.test/wget-get || true
cli wget -q -O /dev/null --tries=1 --method=HEAD http://srv.example.test:8080/wget-head || true
cli wget -q -O /dev/null --tries=1 --post-data='a=b' http://srv.example.test/wget-post || true
# Two requests in one segment, as a pipelining client sends them.
cli python3 - <<'PY'
import socket
s = socket.create_connection(("10.53.0.1", 80))
s.sendall(b"GET /first HTTP/1.1\r\nHost: one.example.test\r\n\r\n"
          b"GET /second HTTP/1.1\r\nHost: two.example.test\r\n\r\n")
s.settimeout(2)
try:
    while s.recv(4096):
        pass
except OSError:
    pass
s.close()
PY
finish http.pcap

ls -l "$out"/*.pcap

# Seed corpora for the decoder fuzzers: each DNS payload and each client
# HTTP segment of the captures, one file each, named by content.
seed() {  # pcap filter corpus
	local dir="$out/../../fuzz/corpus/$3"
	mkdir -p "$dir"
	tshark -r "$out/$1" -Y "$2" -T fields -e udp.payload -e tcp.payload 2>/dev/null |
	tr -d '\t:' | sort -u | while read -r hex; do
		[ -n "$hex" ] || continue
		f="$work/seed" && echo "$hex" | xxd -r -p >"$f"
		cp "$f" "$dir/$(sha1sum "$f" | cut -c1-16)"
	done
}
seed dns.pcap "dns" decode_dns
seed http.pcap "tcp.dstport == 80 || tcp.dstport == 8080" decode_http
