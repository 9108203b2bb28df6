// The DNS name cache, the non-HTTP and the HTTPS flow tables: their keys,
// matches, sweep rules and log lines.
#include <gtest/gtest.h>
#include <arpa/inet.h>

#include <string>
#include <vector>

#include "kmodel/host.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/skbuff.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"
#include "track_view.h"

using namespace track_test;
using Lines = std::vector<std::string>;

namespace {

__be32 ip4(const std::string &s)
{
	__be32 a;
	inet_pton(AF_INET, s.c_str(), &a);
	return a;
}

struct Addr6 {
	u8 b[16];
	explicit Addr6(const char *s) { inet_pton(AF_INET6, s, b); }
};

dns_info query(const std::string &name, const char *client)
{
	dns_info info{};
	strcpy(info.name, name.c_str());
	info.client = ip4(client);
	return info;
}

// A query for some name prefix<n> that falls in `bucket`.
dns_info query_in_bucket(const char *prefix, u32 bucket)
{
	for (int i = 0;; i++) {
		std::string n = prefix + std::to_string(i);
		if (dns_hash(n.c_str(), (int)n.size()) == bucket)
			return query(n, "10.0.0.1");
	}
}

void fini_flow_tables()
{
	ssl_fini();
	pct_fini();
	ssl6_fini();
	pct6_fini();
	dns_fini();
}

class Tables : public ::testing::Test {
protected:
	void SetUp() override
	{
		kmodel_reset();
		for (int (*init)(void) : { dns_init, pct_init, pct6_init, ssl_init, ssl6_init })
			ASSERT_EQ(0, init());
		EXPECT_EQ((Lines{ "<6>[dns_init]: init dns module ..\n", "<6>[pct_init]: init pct module ..\n",
				  "<6>[pct6_init]: init pct module ..\n", "<6>[ssl_init]: init ssl module ..\n",
				  "<6>[ssl6_init]: init ssl module ..\n" }),
			  kmodel_log());
		kmodel_log_clear();
	}
	void TearDown() override
	{
		void *dns = dns_table;
		fini_flow_tables();
		EXPECT_EQ(dns, dns_table) << "the DNS cache's pointer outlives its block";
		EXPECT_EQ(0, kmodel_alloc_stats_get().live_blocks);
	}
};

TEST_F(Tables, DnsCacheMatchesPrefixesAndKeepsOneEntryPerQuery)
{
	EXPECT_EQ(nullptr, dns_find("www.example.com"));
	EXPECT_EQ(nullptr, dns_find(""));
	dns_info q = query("www.example.com", "192.168.1.2");
	dns_add(&q);
	dns_entry *first = dns_find("www.example.com");
	ASSERT_NE(nullptr, first);
	EXPECT_EQ(q.client, first->client);
	EXPECT_EQ(2, atomic_read(&first->refcnt));
	EXPECT_EQ(0, first->state);
	// A second client's query is a second entry, in front of the first.
	dns_info q2 = query("www.example.com", "192.168.1.3");
	dns_add(&q2);
	dns_entry *second = dns_find("www.example.com");
	EXPECT_NE(first, second);
	EXPECT_EQ(q2.client, second->client);

	// Prefix keys: "www.example.co" falls in bucket 63, the full name in 125;
	// a longer name in the key's own bucket is matched by the key.
	EXPECT_EQ(nullptr, dns_find("www.example.co"));
	dns_info longer = query_in_bucket("q", dns_hash("q", 1));
	dns_add(&longer);
	ASSERT_NE(nullptr, dns_find("q"));
	EXPECT_STREQ(longer.name, dns_find("q")->name);
	// The empty key matches the first entry of bucket 0, whatever its name.
	dns_info zero = query_in_bucket("zz", 0);
	dns_add(&zero);
	ASSERT_NE(nullptr, dns_find(""));
	EXPECT_STREQ(zero.name, dns_find("")->name);

	// Names are cut to 255 bytes.
	dns_info big{};
	memset(big.name, 'x', 255);
	dns_add(&big);
	dns_entry *e = dns_find(std::string(255, 'x').c_str());
	ASSERT_NE(nullptr, e);
	EXPECT_EQ(0, e->name[255]);
	check_invariant(&dns_table->pool, dns_table->slots);
}

TEST_F(Tables, FullDnsCacheLogsAndEvictsTheOldestUnrefreshed)
{
	const long allocs = kmodel_alloc_stats_get().total_allocs;
	for (int i = 0; i < 100; i++) {
		dns_info q = query("n" + std::to_string(i) + ".example", "192.168.1.2");
		dns_add(&q);
	}
	EXPECT_TRUE(kmodel_log().empty());
	dns_update_timeout(dns_find("n0.example"));
	// The slot taken over held a response: an add sets everything afresh.
	dns_entry *old = dns_find("n1.example");
	memset(old->addrs, 0xff, sizeof(old->addrs));
	memset(old->spare, 0xff, sizeof(old->spare));
	old->state = 1;
	dns_info q = query("late.example", "192.168.1.2");
	dns_add(&q);
	EXPECT_EQ(Lines{ "<7>[dns_add]: dns table is full, delete oldest dns entry\n" }, kmodel_log());
	EXPECT_NE(nullptr, dns_find("n0.example"));
	EXPECT_EQ(nullptr, dns_find("n1.example"));
	dns_entry *late = dns_find("late.example");
	EXPECT_EQ(dns_table->slots + 1, late);
	EXPECT_EQ(std::string(sizeof(late->addrs), '\0'), std::string((char *)late->addrs, sizeof(late->addrs)));
	EXPECT_EQ(std::string(sizeof(late->spare), '\0'), std::string((char *)late->spare, sizeof(late->spare)));
	EXPECT_EQ(0, late->state);
	EXPECT_EQ(ip4("192.168.1.2"), late->client);
	EXPECT_EQ(2, atomic_read(&late->refcnt)); // its add, and the find above

	// Expiry waits for check_period even when entries are stale.
	dns_delete(late);
	EXPECT_EQ(0u, late->node.expires);
	EXPECT_EQ(LIST_POISON1, late->node.age_link.next);
	kmodel_set_jiffies(check_period - 1);
	dns_add(&q);
	EXPECT_NE(nullptr, dns_find("n2.example"));
	kmodel_advance_jiffies(2);
	dns_add(&q);
	EXPECT_EQ(nullptr, dns_find("n2.example"));
	EXPECT_NE(nullptr, dns_find("late.example"));
	check_invariant(&dns_table->pool, dns_table->slots);
	EXPECT_EQ(allocs, kmodel_alloc_stats_get().total_allocs) << "the cache allocates nothing after init";
}

TEST_F(Tables, FlowTablesKeepTheirOwnDeadlines)
{
	Addr6 a("2001:db8::1"), b("2001:db8::2");
	pct6_add("six.example", a.b, 0);
	kmodel_advance_jiffies(600001);
	pct_add("four.example", ip4("10.0.0.1"), 0); // sweeps the IPv4 table only
	EXPECT_EQ(jiffies + 600000, pct_next_sweep);
	pct6_add("six.example", b.b, 0);
	EXPECT_EQ(nullptr, pct6_find(a.b));
	EXPECT_NE(nullptr, pct6_find(b.b));
}

TEST_F(Tables, HttpsTrustConntrackAndWithdrawal)
{
	iphdr up{}, down{};
	up.saddr = down.daddr = ip4("192.168.1.2");
	up.daddr = down.saddr = ip4("198.51.100.7");
	ssl_add(up.saddr, up.daddr, "secure.example", STATE_ESTAB);
	ssl_tracking *rec = ssl_find(&up);
	ASSERT_NE(nullptr, rec);
	EXPECT_EQ(rec, ssl_find(&down));
	EXPECT_EQ(STATE_ESTAB, rec->state);
	EXPECT_EQ(0, rec->trust);
	EXPECT_EQ(nullptr, ssl_find_with_trust(&up));
	ssl_update_trust(rec, 1);
	EXPECT_EQ(rec, ssl_find_with_trust(&down));
	EXPECT_EQ(4, atomic_read(&rec->refcnt));
	sk_buff skb{};
	EXPECT_EQ(-1, ssl_update_nfconn(rec, &skb));
	EXPECT_EQ(nullptr, rec->nfconn);

	const Addr6 server("2001:db8:5::8500:1"), any("::");
	ssl6_add(any.b, server.b, "six.example", STATE_ESTAB);

	// Withdrawing trust logs one line per record with its bucket number
	// (the sum of the address words as loaded): buckets in order, within one
	// the newest record first.
	ssl_add(ip4("10.0.0.3"), ip4("198.51.100.8"), "b.example", 2);
	ssl_add(ip4("192.168.1.3"), ip4("198.51.100.9"), "c.example", 2);
	for (int b = 0; b < 128; b++) {
		list_head *p;
		list_for_each(p, &ssl_table->pool.buckets[b])
			list_entry(p, ssl_tracking, node.hash_link)->trust = 1;
	}
	kmodel_log_clear();
	ssl_delete_all(0);
	EXPECT_EQ((Lines{ "<7>[ssl_delete_all]: clear ssl tracking[6], host=c.example\n",
			  "<7>[ssl_delete_all]: clear ssl tracking[6], host=secure.example\n",
			  "<7>[ssl_delete_all]: clear ssl tracking[80], host=b.example\n" }),
		  kmodel_log());
	EXPECT_EQ(nullptr, ssl_find_with_trust(&up));
	EXPECT_EQ(rec, ssl_find(&up));
	ssl_delete_all(1);
	EXPECT_EQ(nullptr, ssl_find(&up));
	EXPECT_EQ(100u, view(&ssl_table->pool, ssl_table->slots).free_list.size());
	kmodel_log_clear();
	ssl6_delete_all(0);
	EXPECT_EQ(Lines{ "<7>[ssl6_delete_all]: clear ssl tracking[5], host=six.example\n" }, kmodel_log());
	check_invariant(&ssl6_table->pool, ssl6_table->slots);
}

} // namespace
