// The tables against a deliberately simple model (std::deque and std::list
// standing for the free list, the bucket chains and the age list) on random
// operation sequences, with the slot invariant checked after every step;
// the operations log nothing and allocate nothing.
#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <functional>
#include <list>
#include <random>

#include "kmodel/host.h"
#include "linux/ip.h"
#include "linux/tcp.h"
#include "reference.h"
#include "linux/ipv6.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"
#include "track_view.h"

using namespace track_test;

namespace {

using Key = std::array<uint8_t, 36>; // client, server (4 or 16 bytes each), ports, as on the wire

struct Model {
	u32 timeout;
	u32 deadline;
	std::deque<int> free_list;
	std::vector<std::list<int>> buckets = std::vector<std::list<int>>(TRACK_BUCKETS);
	std::list<int> age;
	std::vector<Key> key = std::vector<Key>(TRACK_SLOTS);
	std::vector<u32> expires = std::vector<u32>(TRACK_SLOTS);
	std::vector<int> keep = std::vector<int>(TRACK_SLOTS);
	std::vector<uint32_t> bucket_of = std::vector<uint32_t>(TRACK_SLOTS);

	explicit Model(u32 t) : timeout(t), deadline(jiffies + t)
	{
		for (int i = 0; i < TRACK_SLOTS; i++)
			free_list.push_back(i);
	}
	void release(int s)
	{
		buckets[bucket_of[s]].remove(s);
		age.remove(s);
		free_list.push_front(s);
	}
	void sweep()
	{
		if ((s32)(deadline - jiffies) >= 0)
			return;
		u32 now = jiffies;
		for (auto it = age.begin(); it != age.end();) {
			int s = *it++;
			if ((s32)(expires[s] - jiffies) >= 0) {
				deadline = expires[s];
				return;
			}
			if (!keep[s])
				release(s);
		}
		deadline = now + timeout;
	}
	// True when the add had to take over a record in use.
	bool add(const Key &k, uint32_t b, int kp)
	{
		bool evicted = false;

		sweep();
		if (free_list.empty()) {
			release(age.front());
			evicted = true;
		}
		int s = free_list.front();
		free_list.pop_front();
		buckets[b].push_front(s);
		bucket_of[s] = b;
		age.push_back(s);
		key[s] = k;
		keep[s] = kp;
		expires[s] = jiffies + timeout;
		return evicted;
	}
	void refresh(int s)
	{
		age.remove(s);
		age.push_back(s);
		expires[s] = jiffies + timeout;
	}
	int find(uint32_t b, const std::function<bool(const Key &)> &match) const
	{
		for (int s : buckets[b])
			if (match(key[s]))
				return s;
		return -1;
	}
	int random_in_use(std::mt19937 &rng) const
	{
		if (age.empty())
			return -1;
		auto it = age.begin();
		std::advance(it, rng() % age.size());
		return *it;
	}
};

template <class R> void expect_same(const Model &m, const track_pool *pool, const R *slots, u32 deadline)
{
	check_invariant(pool, slots);
	View v = view(pool, slots);
	ASSERT_EQ(std::vector<int>(m.free_list.begin(), m.free_list.end()), v.free_list);
	ASSERT_EQ(std::vector<int>(m.age.begin(), m.age.end()), v.age);
	for (int b = 0; b < TRACK_BUCKETS; b++)
		ASSERT_EQ(std::vector<int>(m.buckets[b].begin(), m.buckets[b].end()), v.buckets[b]) << "bucket " << b;
	for (int s : m.age)
		ASSERT_EQ(m.expires[s], slots[s].node.expires) << "slot " << s;
	ASSERT_EQ(m.deadline, deadline);
}

// Time steps around the time-out, so that records expire in runs.
u32 random_step(std::mt19937 &rng, u32 timeout)
{
	static const u32 parts[] = { 0, 1, 7, 100, 2500, 5000, 10000 };
	u32 step = timeout / 10000 * parts[rng() % 7];
	return rng() % 8 ? step : timeout + (u32)(rng() % 3) - 1;
}

// One table under the model: its operations on a key, the bucket the key
// must land in (from the published description), and the fields an add
// must set afresh in a slot that held something else before.
template <class R> struct Table {
	const char *name;
	u32 timeout, *deadline;
	int (*init)(void);
	void (*fini)(void);
	std::function<track_pool *()> pool;
	std::function<R *()> slots;
	std::function<Key(std::mt19937 &)> key;
	std::function<uint32_t(const Key &, bool reverse)> bucket;
	std::function<bool(const Key &rec, const Key &probe)> match;
	std::function<void(const Key &, int keep)> add;
	std::function<R *(const Key &, bool reverse)> find;
	std::function<void(R *)> del, refresh, dirty;
	std::function<void(const R *, const Key &, int keep)> fresh;
	bool keeps;
};

// Addresses of a key as headers carry them (reverse: server to client).
struct Hdr {
	iphdr ip{};
	ipv6hdr ip6{};
	tcphdr th{};
};
Hdr hdr_of(const Key &k, bool reverse)
{
	Hdr h;
	const uint8_t *c = &k[0], *s = &k[16], *cp = &k[32], *sp = &k[34];
	if (reverse)
		std::swap(c, s), std::swap(cp, sp);
	memcpy(&h.ip.saddr, c, 4), memcpy(&h.ip.daddr, s, 4);
	memcpy(&h.ip6.saddr, c, 16), memcpy(&h.ip6.daddr, s, 16);
	memcpy(&h.th.source, cp, 2), memcpy(&h.th.dest, sp, 2);
	return h;
}

uint32_t sum_words(const uint8_t *p, int words)
{
	uint32_t s = 0;
	for (int i = 0; i < words; i++)
		s += le32(p + 4 * i);
	return s;
}

// Both directions of the pair (or of one address) match.
bool pair_match(const Key &r, const Key &k, size_t alen, bool ports)
{
	auto eq = [&](size_t a, size_t b, size_t n) { return !memcmp(&r[a], &k[b], n); };
	bool fwd = eq(0, 0, alen) && eq(16, 16, alen) && (!ports || (eq(32, 32, 2) && eq(34, 34, 2)));
	bool rev = eq(0, 16, alen) && eq(16, 0, alen) && (!ports || (eq(32, 34, 2) && eq(34, 32, 2)));
	return fwd || rev;
}

template <class R> int slot_of(const Table<R> &t, const R *rec) { return rec ? (int)(rec - t.slots()) : -1; }

template <class R> void follow_model(const Table<R> &t, unsigned seed)
{
	SCOPED_TRACE(t.name);
	kmodel_reset();
	ASSERT_EQ(0, t.init());
	kmodel_log_clear();
	const kmodel_alloc_stats before = kmodel_alloc_stats_get();
	Model m(t.timeout);
	std::mt19937 rng(seed);
	u32 start = jiffies;
	bool wrapped = false;
	int finds = 0, hits = 0, evictions = 0, kept_survivals = 0;

	for (int step = 0; step < 4000; step++) {
		Key k = t.key(rng);
		int op = rng() % 100;
		if (op < 32) {
			int keep = t.keeps && rng() % 10 == 0;
			for (int s = 0; s < TRACK_SLOTS; s++)
				t.dirty(&t.slots()[s]);
			t.add(k, keep);
			evictions += m.add(k, t.bucket(k, false), keep);
			const R *rec = &t.slots()[m.age.back()];
			ASSERT_NO_FATAL_FAILURE(t.fresh(rec, k, keep)) << "step " << step;
		} else if (op < 65) {
			bool reverse = rng() % 2;
			int want = m.find(t.bucket(k, reverse), [&](const Key &r) { return t.match(r, k); });
			ASSERT_EQ(want, slot_of(t, t.find(k, reverse))) << "step " << step;
			finds++;
			hits += want >= 0;
		} else if (op < 95) {
			int s = m.random_in_use(rng);
			if (s >= 0 && op < 70) {
				t.del(&t.slots()[s]);
				m.release(s);
				ASSERT_EQ(0u, t.slots()[s].node.expires);
			} else if (s >= 0) {
				t.refresh(&t.slots()[s]);
				m.refresh(s);
			}
		} else if ((step / 1000) % 2) {
			// Every other thousand steps the clock stands and the table fills.
			kmodel_advance_jiffies(random_step(rng, t.timeout));
			wrapped |= jiffies < start;
		}
		for (int s : m.age)
			kept_survivals += m.keep[s] && (s32)(m.expires[s] - jiffies) < 0;
		ASSERT_NO_FATAL_FAILURE(expect_same(m, t.pool(), t.slots(), *t.deadline));
	}
	EXPECT_TRUE(wrapped);
	EXPECT_GT(hits, finds / 5);
	EXPECT_GT(evictions, 10);
	EXPECT_TRUE(!t.keeps || kept_survivals > 20) << kept_survivals;
	// Evictions are silent, and the tables allocate nothing after init.
	EXPECT_TRUE(kmodel_log().empty());
	EXPECT_EQ(before.total_allocs, kmodel_alloc_stats_get().total_allocs);
	EXPECT_EQ(before.live_blocks, kmodel_alloc_stats_get().live_blocks);
	t.fini();
}

// The parts every table shares: its block, clock and set-up.
template <class R, class B>
Table<R> table(const char *name, u32 timeout, u32 *deadline, int (*init)(void), void (*fini)(void), B **block)
{
	Table<R> t;
	t.name = name, t.timeout = timeout, t.deadline = deadline, t.init = init, t.fini = fini;
	t.pool = [block] { return &(*block)->pool; };
	t.slots = [block] { return (*block)->slots; };
	return t;
}

// Few hosts and ports: duplicate adds and shared buckets are common.
Key key4(std::mt19937 &rng, bool ports)
{
	Key k{};
	uint8_t c[4] = { 192, 168, 1, (uint8_t)(2 + rng() % 6) }, s[4] = { 10, 0, 0, (uint8_t)(1 + rng() % 3) };
	memcpy(&k[0], c, 4), memcpy(&k[16], s, 4);
	if (ports)
		k[32] = 0xc3, k[33] = (uint8_t)(0x50 + rng() % 4), k[35] = 80;
	return k;
}
Key key6(std::mt19937 &rng, bool ports)
{
	Key k{};
	k[0] = 0x20, k[1] = 0x01, k[5] = (uint8_t)(rng() % 2), k[15] = (uint8_t)(2 + rng() % 2);
	k[16] = 0x20, k[17] = 0x01, k[19] = (uint8_t)(rng() % 2), k[28] = (uint8_t)(rng() % 3) * 0x81,
	k[31] = (uint8_t)(1 + rng() % 2);
	if (ports)
		k[32] = 0xc3, k[33] = (uint8_t)(0x50 + rng() % 2), k[35] = 80;
	return k;
}

void dirty_name(char *host) { strcpy(host, "stale.example"); }

// A flow record: a free slot comes back kept, to see that an add sets it.
template <class R> void dirty_flow(R *r)
{
	r->state = STATE_BLOCK;
	dirty_name(r->host);
	if (!r->node.expires)
		r->keep = 1;
}
template <class R> void fresh_flow(const R *r, int keep)
{
	EXPECT_EQ(0, r->state);
	EXPECT_EQ(keep, r->keep);
	EXPECT_STREQ("host.example", r->host);
	EXPECT_EQ(1, atomic_read(&r->refcnt));
}

Table<tcp_tracking> http_table(bool v6)
{
	auto t = table<tcp_tracking>(v6 ? "tcp_table6" : "tcp_table", TCP_TIMEOUT, &tcp_next_sweep, cbt_tcp_init,
				     cbt_tcp_fini, v6 ? &tcp_table6 : &tcp_table);
	t.key = [v6](std::mt19937 &rng) { return v6 ? key6(rng, true) : key4(rng, true); };
	// The address words and the two ports, as loaded natively.
	t.bucket = [v6](const Key &k, bool) {
		return (sum_words(&k[0], v6 ? 4 : 1) + sum_words(&k[16], v6 ? 4 : 1) + le16(&k[32]) + le16(&k[34])) & 127;
	};
	t.match = [v6](const Key &r, const Key &k) { return pair_match(r, k, v6 ? 16 : 4, true); };
	t.add = [v6](const Key &k, int) {
		Hdr h = hdr_of(k, false);
		ASSERT_EQ(0, v6 ? tcp_add6(&h.ip6, &h.th) : tcp_add(&h.ip, &h.th));
	};
	t.find = [v6](const Key &k, bool reverse) {
		Hdr h = hdr_of(k, reverse);
		return v6 ? tcp_find6(&h.ip6, &h.th) : tcp_find(&h.ip, &h.th);
	};
	t.del = [v6](tcp_tracking *r) { v6 ? tcp_delete6(r) : tcp_delete(r); };
	t.refresh = [v6](tcp_tracking *r) { v6 ? tcp_update_timeout6(r) : tcp_update_timeout(r); };
	t.dirty = [](tcp_tracking *r) {
		r->state = STATE_FIN_WAIT2, r->nfconn = (struct nf_conntrack *)&r->state, r->req_len = 77;
		r->req_buf[0] = r->req_buf[TCP_REQ_BUF_LEN - 1] = 'x';
		r->redirect_url[0] = r->redirect_url[TCP_URL_LEN - 1] = 'x';
		atomic_set(&r->refcnt, 9);
	};
	t.fresh = [v6](const tcp_tracking *r, const Key &k, int) {
		EXPECT_EQ(STATE_SYN_RCVD, r->state);
		EXPECT_EQ(nullptr, r->nfconn);
		EXPECT_EQ(0u, r->req_len);
		EXPECT_EQ(1, atomic_read(&r->refcnt));
		EXPECT_EQ(0, r->req_buf[0] | r->req_buf[TCP_REQ_BUF_LEN - 1]);
		EXPECT_EQ(0, r->redirect_url[0] | r->redirect_url[TCP_URL_LEN - 1]);
		Key got{};
		if (v6)
			memcpy(&got[0], &r->saddr6, 16), memcpy(&got[16], &r->daddr6, 16);
		else
			memcpy(&got[0], &r->saddr, 4), memcpy(&got[16], &r->daddr, 4);
		memcpy(&got[32], &r->sport, 2), memcpy(&got[34], &r->dport, 2);
		EXPECT_EQ(k, got);
	};
	t.keeps = false;
	return t;
}

// The IPv4 flow table: the seeded hash of the whole address word.
Table<pct_tracking> flow_table()
{
	auto t = table<pct_tracking>("pct_table", PCT_TIMEOUT, &pct_next_sweep, [] {
		int r = pct_init();
		pct_hash_seed = 0x5eed1234;
		return r;
	}, pct_fini, &pct_table);
	t.key = [](std::mt19937 &rng) {
		Key k{};
		k[16] = 93, k[17] = 184, k[18] = (uint8_t)(rng() % 4), k[19] = (uint8_t)(rng() % 40);
		return k;
	};
	t.bucket = [](const Key &k, bool) { return jhash_1word_ref(&k[16], 0x5eed1234) & 127; };
	t.match = [](const Key &r, const Key &k) { return !memcmp(&r[16], &k[16], 4); };
	t.add = [](const Key &k, int keep) {
		__be32 a;
		memcpy(&a, &k[16], 4);
		ASSERT_EQ(0, pct_add("host.example", a, keep));
	};
	t.find = [](const Key &k, bool) {
		__be32 a;
		memcpy(&a, &k[16], 4);
		return pct_find(a);
	};
	t.del = [](pct_tracking *r) { pct_delete(r); };
	t.refresh = [](pct_tracking *r) { pct_update_timeout(r); };
	t.dirty = dirty_flow<pct_tracking>;
	t.fresh = [](const pct_tracking *r, const Key &k, int keep) {
		fresh_flow(r, keep);
		EXPECT_EQ(0, memcmp(&r->addr, &k[16], 4));
	};
	t.keeps = true;
	return t;
}

Table<pct6_tracking> flow_table6()
{
	auto t = table<pct6_tracking>("pct6_table", PCT_TIMEOUT, &pct6_next_sweep, [] {
		int r = pct6_init();
		pct6_hash_seed = 0x5eed1234;
		return r;
	}, pct6_fini, &pct6_table);
	t.key = [](std::mt19937 &rng) {
		Key k{};
		k[16] = 0x20, k[17] = 0x01, k[19] = (uint8_t)(rng() % 4), k[31] = (uint8_t)(rng() % 40);
		return k;
	};
	// The fourth byte alone, as a zero-extended word.
	t.bucket = [](const Key &k, bool) {
		uint8_t w[4] = { k[19], 0, 0, 0 };
		return jhash_1word_ref(w, 0x5eed1234) & 127;
	};
	t.match = [](const Key &r, const Key &k) { return !memcmp(&r[16], &k[16], 16); };
	t.add = [](const Key &k, int keep) { ASSERT_EQ(0, pct6_add("host.example", &k[16], keep)); };
	t.find = [](const Key &k, bool) { return pct6_find(&k[16]); };
	t.del = [](pct6_tracking *r) { pct6_delete(r); };
	t.refresh = [](pct6_tracking *r) { pct6_update_timeout(r); };
	t.dirty = dirty_flow<pct6_tracking>;
	t.fresh = [](const pct6_tracking *r, const Key &k, int keep) {
		fresh_flow(r, keep);
		EXPECT_EQ(0, memcmp(r->addr6, &k[16], 16));
	};
	t.keeps = true;
	return t;
}

template <class R> void dirty_ssl(R *r)
{
	r->state = STATE_BLOCK, r->trust = 1, r->nfconn = (struct nf_conntrack *)&r->state;
	memset(r->spare, 0xff, sizeof(r->spare));
	dirty_name(r->host);
}
template <class R> void fresh_ssl(const R *r)
{
	EXPECT_EQ(STATE_ESTAB, r->state);
	EXPECT_EQ(0, r->trust);
	EXPECT_EQ(nullptr, r->nfconn);
	EXPECT_EQ(0, r->spare[0] | r->spare[1] | r->spare[2] | r->spare[3]);
	EXPECT_STREQ("kids.example", r->host);
	EXPECT_EQ(1, atomic_read(&r->refcnt));
}

Table<ssl_tracking> https_table()
{
	auto t = table<ssl_tracking>("ssl_table", SSL_TIMEOUT, &ssl_next_sweep, ssl_init, ssl_fini, &ssl_table);
	t.key = [](std::mt19937 &rng) { return key4(rng, false); };
	t.bucket = [](const Key &k, bool) { return (le32(&k[0]) + le32(&k[16])) & 127; };
	t.match = [](const Key &r, const Key &k) { return pair_match(r, k, 4, false); };
	t.add = [](const Key &k, int) {
		__be32 c, s;
		memcpy(&c, &k[0], 4), memcpy(&s, &k[16], 4);
		ASSERT_EQ(0, ssl_add(c, s, "kids.example", STATE_ESTAB));
	};
	t.find = [](const Key &k, bool reverse) {
		Hdr h = hdr_of(k, reverse);
		return ssl_find(&h.ip);
	};
	t.del = [](ssl_tracking *r) { ssl_delete(r); };
	t.refresh = [](ssl_tracking *r) { ssl_update_timeout(r); };
	t.dirty = dirty_ssl<ssl_tracking>;
	t.fresh = [](const ssl_tracking *r, const Key &k, int) {
		fresh_ssl(r);
		EXPECT_EQ(0, memcmp(&r->client, &k[0], 4));
		EXPECT_EQ(0, memcmp(&r->server, &k[16], 4));
	};
	t.keeps = false;
	return t;
}

// The IPv6 buckets are word 3 of the server, taken from the packet's
// destination: a server-to-client packet looks in the client's bucket.
// An all-zero client stands for any client.
Table<ssl6_tracking> https_table6()
{
	auto t = table<ssl6_tracking>("ssl6_table", SSL_TIMEOUT, &ssl6_next_sweep, ssl6_init, ssl6_fini, &ssl6_table);
	t.key = [](std::mt19937 &rng) {
		Key k = key6(rng, false);
		if (rng() % 3 == 0)
			memset(&k[0], 0, 16);
		return k;
	};
	t.bucket = [](const Key &k, bool reverse) { return le32(&k[reverse ? 12 : 28]) & 127; };
	t.match = [](const Key &r, const Key &k) {
		static const uint8_t any[16] = {};
		auto client_is = [&](size_t at) { return !memcmp(&r[0], any, 16) || !memcmp(&r[0], &k[at], 16); };
		return (client_is(0) && !memcmp(&r[16], &k[16], 16)) || (client_is(16) && !memcmp(&r[16], &k[0], 16));
	};
	t.add = [](const Key &k, int) { ASSERT_EQ(0, ssl6_add(&k[0], &k[16], "kids.example", STATE_ESTAB)); };
	t.find = [](const Key &k, bool reverse) {
		Hdr h = hdr_of(k, reverse);
		return ssl6_find(&h.ip6);
	};
	t.del = [](ssl6_tracking *r) { ssl6_delete(r); };
	t.refresh = [](ssl6_tracking *r) { ssl6_update_timeout(r); };
	t.dirty = dirty_ssl<ssl6_tracking>;
	t.fresh = [](const ssl6_tracking *r, const Key &k, int) {
		fresh_ssl(r);
		EXPECT_EQ(0, memcmp(r->client, &k[0], 16));
		EXPECT_EQ(0, memcmp(r->server, &k[16], 16));
	};
	t.keeps = false;
	return t;
}

TEST(TableModel, EveryTableFollowsTheModelAcrossTheWrap)
{
	follow_model(http_table(false), 1234);
	follow_model(http_table(true), 4321);
	follow_model(flow_table(), 99);
	follow_model(flow_table6(), 77);
	follow_model(https_table(), 5);
	follow_model(https_table6(), 6);
}

} // namespace
