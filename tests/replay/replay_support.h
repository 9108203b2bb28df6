#pragma once
// Running dnshook-replay in-process over the story capture, and reading
// its JSON lines back.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "sim/pcap.h"
#include "tools/replay/run.h"

namespace replay_test {

inline const std::string kData = std::string(DNSHOOK_SOURCE_DIR) + "/tests/data/replay/";
inline const std::string kStory = kData + "story.pcap", kPolicy = kData + "story.policy";
inline const std::string kLaptop = "02:00:00:77:00:10";

struct Outcome {
	int rc = -1;
	std::vector<std::string> lines; // stdout, one per line
	std::string err;
	std::string out() const
	{
		std::string s;
		for (auto &l : lines)
			s += l + "\n";
		return s;
	}
};

inline Outcome run(const std::vector<std::string> &args)
{
	char *obuf = nullptr, *ebuf = nullptr;
	size_t olen = 0, elen = 0;
	FILE *o = open_memstream(&obuf, &olen), *e = open_memstream(&ebuf, &elen);
	Outcome r;
	r.rc = replay::replay_main(args, o, e);
	fclose(o);
	fclose(e);
	std::string out(obuf, olen);
	r.err.assign(ebuf, elen);
	free(obuf);
	free(ebuf);
	for (size_t start = 0, nl; start < out.size(); start = nl + 1) {
		nl = out.find('\n', start);
		r.lines.push_back(out.substr(start, nl - start));
	}
	return r;
}

// A field of a JSON line as text: strings unquoted (escapes kept), numbers
// and objects as written; "" when the line has no such field.
inline std::string field(const std::string &line, const std::string &key)
{
	std::string k = "\"" + key + "\":";
	size_t at = line.find(k);
	if (at == std::string::npos)
		return "";
	at += k.size();
	if (line[at] == '"') {
		size_t end = at + 1;
		while (end < line.size() && line[end] != '"')
			end += line[end] == '\\' ? 2 : 1;
		return line.substr(at + 1, end - at - 1);
	}
	int depth = 0;
	size_t end = at;
	for (; end < line.size(); end++) {
		char c = line[end];
		if (c == '{')
			depth++;
		else if (c == '}' && depth-- == 0)
			break;
		else if (c == ',' && depth == 0)
			break;
	}
	return line.substr(at, end - at);
}

inline std::vector<std::string> events(const Outcome &r, const std::string &kind)
{
	std::vector<std::string> out;
	for (auto &l : r.lines)
		if (field(l, "event") == kind)
			out.push_back(l);
	return out;
}

// Packet number -> "ACCEPT" or the hook that dropped it.
inline std::map<int, std::string> decisions(const Outcome &r)
{
	std::map<int, std::string> d;
	for (auto &l : events(r, "packet")) {
		std::string by = field(l, "dropped_by");
		d[std::stoi(field(l, "number"))] = by.empty() ? "ACCEPT" : by;
	}
	return d;
}

// The story capture's frames (frame n at index n - 1), read by the test
// support's own reader.
inline const std::vector<sim::Bytes> &story()
{
	static std::vector<sim::Bytes> frames;
	sim::PcapLink link;
	if (frames.empty() && (!sim::pcap_read(kStory, &frames, &link) || link != sim::PCAP_ETHERNET))
		frames.clear();
	return frames;
}

// ---- classic pcap files as bytes (little-endian, as the story is) ----
inline sim::Bytes file_bytes(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	return sim::Bytes(std::istreambuf_iterator<char>(f), {});
}

inline void write_bytes(const std::string &path, const sim::Bytes &b)
{
	std::ofstream(path, std::ios::binary).write((const char *)b.data(), b.size());
}

inline void put32(sim::Bytes &b, size_t off, uint32_t v) { memcpy(&b[off], &v, 4); }
inline uint32_t get32(const sim::Bytes &b, size_t off)
{
	uint32_t v;
	memcpy(&v, &b[off], 4);
	return v;
}

// Offset of record n's header (1-based) in a classic pcap file.
inline size_t record_at(const sim::Bytes &b, int n)
{
	size_t pos = 24;
	for (int i = 1; i < n; i++)
		pos += 16 + get32(b, pos + 8);
	return pos;
}

inline std::string temp_path(const std::string &name)
{
	return ::testing::TempDir() + "replay_" + std::to_string(getpid()) + "_" + name;
}

} // namespace replay_test
