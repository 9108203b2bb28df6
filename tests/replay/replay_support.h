#pragma once
// Running dnshook-replay in-process over the story capture, reading its
// JSON lines back, and editing classic pcap files as bytes.
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
	std::string out, err;
	std::vector<std::string> lines; // stdout, one per line
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
	r.out.assign(obuf, olen);
	r.err.assign(ebuf, elen);
	free(obuf);
	free(ebuf);
	for (size_t start = 0, nl; start < r.out.size(); start = nl + 1) {
		nl = r.out.find('\n', start);
		r.lines.push_back(r.out.substr(start, nl - start));
	}
	return r;
}

// A field of a JSON line as text: strings unquoted (escapes kept), numbers
// and objects as written; "" when the line has no such field.
inline std::string field(const std::string &line, const std::string &key)
{
	size_t at = line.find("\"" + key + "\":");
	if (at == std::string::npos)
		return "";
	at += key.size() + 3;
	size_t end = at + 1;
	if (line[at] == '"') {
		while (end < line.size() && line[end] != '"')
			end += line[end] == '\\' ? 2 : 1;
		return line.substr(at + 1, end - at - 1);
	}
	for (int depth = line[at] == '{'; end < line.size() && (depth > 0 || (line[end] != ',' && line[end] != '}')); end++)
		depth += (line[end] == '{') - (line[end] == '}');
	return line.substr(at, end - at);
}

// Fields of the events of one kind, joined by spaces, one string per event.
inline std::vector<std::string> events(const Outcome &r, const std::string &kind, std::vector<std::string> keys = {})
{
	std::vector<std::string> out;
	for (auto &l : r.lines) {
		if (field(l, "event") != kind)
			continue;
		std::string s = keys.empty() ? l : "";
		for (size_t i = 0; i < keys.size(); i++)
			s += (i ? " " : "") + field(l, keys[i]);
		out.push_back(s);
	}
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

// The story capture's frames (frame n at index n - 1), by the sim's reader.
inline const std::vector<sim::Bytes> &story()
{
	static std::vector<sim::Bytes> frames;
	sim::PcapLink link;
	if (frames.empty() && (!sim::pcap_read(kStory, &frames, &link) || link != sim::PCAP_ETHERNET))
		frames.clear();
	return frames;
}

inline sim::Bytes file_bytes(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	return sim::Bytes(std::istreambuf_iterator<char>(f), {});
}

inline void write_bytes(const std::string &path, const sim::Bytes &b)
{
	std::ofstream(path, std::ios::binary).write((const char *)b.data(), b.size());
}

// Little-endian 32-bit fields, as the story's headers are.
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
