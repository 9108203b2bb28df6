// The status files (see status.h).
#include "runtime/status.h"

#include <cstdio>

#include "runtime/channel.h"
#include "runtime/conntrack.h"
#include "runtime/devices.h"
#include "runtime/rules.h"
#include "runtime/traversal.h"

#include "core/hook_registry.h"
#include "kmodel/net.h"
#include "linux/jiffies.h"
#include "lists/tblock.h"
#include "lists/unblock.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

namespace dnshookd {

namespace {

// Records in use: the slots not on the free list.
int in_use(const struct track_pool *pool)
{
	int free_count = 0;
	for (const struct list_head *p = pool->free_list.next; p != &pool->free_list; p = p->next)
		free_count++;
	return TRACK_SLOTS - free_count;
}

template <typename Block> std::string table_line(const char *name, const Block *t)
{
	char line[64];
	if (!t)
		snprintf(line, sizeof(line), "%s none\n", name);
	else
		snprintf(line, sizeof(line), "%s %d/%d\n", name, in_use(&t->pool), TRACK_SLOTS);
	return line;
}

std::string mac_text(const u8 *m)
{
	char s[18];
	snprintf(s, sizeof(s), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
	return s;
}

std::string services(void)
{
	std::string s;
	s += std::string("wp ") + (wp_enabled ? "on" : "off") + "\n";
	s += std::string("pc ") + (pc_enabled ? "on" : "off") + "\n";
	s += std::string("flush_pending ") + (g_ublk_t && get_flush_supending() ? "1" : "0") + "\n";
	return s;
}

std::string tables(const StatusSources &src)
{
	std::string s;
	s += table_line("http4", tcp_table);
	s += table_line("http6", tcp_table6);
	s += table_line("dns", dns_table);
	s += table_line("flow4", pct_table);
	s += table_line("flow6", pct6_table);
	s += table_line("https4", ssl_table);
	s += table_line("https6", ssl6_table);
	s += "connections " + std::to_string(src.conntrack->live()) + "\n";
	s += "white_connections " + std::to_string(src.conntrack->white()) + "\n";
	return s;
}

// One line per listed device: "tblock MAC" or "unblock MAC [URL] SECONDS-LEFT".
std::string devices(const StatusSources &src)
{
	std::string s;
	for (int b = 0; g_tblk_t && b < TBLK_HASH_SIZE; b++)
		for (const struct tblk_entry *e = g_tblk_t[b]; e; e = e->next)
			s += "tblock " + mac_text(e->mac) + "\n";
	for (int b = 0; g_ublk_t && b < UBLK_HASH_SIZE; b++)
		for (const struct ublk_entry *e = g_ublk_t[b]; e; e = e->next) {
			s32 left = (s32)(e->stamp + UBLK_EXPIRE_TICKS - jiffies);
			s += "unblock " + mac_text(e->mac);
			if (e->has_url)
				s += std::string(" ") + e->url;
			s += " " + std::to_string(left > 0 ? left / (s32)src.hz : 0) + "s\n";
		}
	return s;
}

std::string counters(const StatusSources &src)
{
	static const char *const names[Q_COUNT] = {"prerouting4", "prerouting6", "forward4", "forward6"};
	std::string s;
	for (int p = 0; p < Q_COUNT; p++) {
		const PointCount &c = src.traversal->count((QueuePoint)p);
		s += std::string(names[p]) + " packets " + std::to_string(c.packets) + " accepted " +
		     std::to_string(c.accepted) + " dropped " + std::to_string(c.dropped) + "\n";
	}
	const ChannelCount &ch = src.channel->count();
	s += "channel_port " + std::to_string(src.channel->port_id()) + "\n";
	s += "requests " + std::to_string(ch.requests) + "\n";
	s += "request_errors " + std::to_string(ch.request_errors) + "\n";
	s += "replies " + std::to_string(ch.replies) + "\n";
	// Buffers still allocated between packets: the filter's held copies and
	// whatever it keeps; steady under steady traffic.
	s += "buffers " + std::to_string(kmodel_skb_stats_get().live) + "\n";
	for (auto &d : src.devices->sent())
		s += "sent " + d.first + " " + std::to_string(d.second.frames) + " errors " +
		     std::to_string(d.second.errors) + "\n";
	return s;
}

} // namespace

const std::vector<std::string> &status_files(void)
{
	static const std::vector<std::string> files = {"services", "tables", "devices", "counters", "rules"};
	return files;
}

std::string status_text(const std::string &file, const StatusSources &src)
{
	if (file == "services")
		return services();
	if (file == "tables")
		return tables(src);
	if (file == "devices")
		return devices(src);
	if (file == "counters")
		return counters(src);
	if (file == "rules")
		return src.rules->text();
	return "";
}

} // namespace dnshookd
