#include "rated/block_page.h"

#include <algorithm>
#include <array>
#include <utility>

namespace policy {

namespace {

bool unreserved(unsigned char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
	       c == '_' || c == '~';
}

} // namespace

std::string percent_encode(std::string_view s)
{
	static const char hex[] = "0123456789ABCDEF";
	std::string out;
	for (unsigned char c : s) {
		if (unreserved(c)) {
			out += char(c);
			continue;
		}
		out += '%';
		out += hex[c >> 4];
		out += hex[c & 15];
	}
	return out;
}

std::optional<BlockPage> BlockPage::parse(std::string_view text, std::string &why)
{
	static const std::array<std::pair<std::string_view, Field>, 7> names = { {
		{ "host", Field::host },
		{ "url", Field::url },
		{ "path", Field::path },
		{ "service", Field::service },
		{ "device", Field::device },
		{ "mac", Field::mac },
		{ "client", Field::client },
	} };
	BlockPage page;
	page.text_ = text;
	std::string literal;
	for (size_t i = 0; i < text.size(); i++) {
		unsigned char c = text[i];
		if (c <= ' ' || c == 0x7f) {
			why = "block page address holds a space or control character";
			return std::nullopt;
		}
		if (c != '{') {
			literal += char(c);
			continue;
		}
		size_t close = text.find('}', i);
		if (close == std::string_view::npos) {
			why = "unterminated field '" + std::string(text.substr(i)) + "' in block page address";
			return std::nullopt;
		}
		std::string_view name = text.substr(i + 1, close - i - 1);
		const auto *hit = std::find_if(names.begin(), names.end(), [&](const auto &n) { return n.first == name; });
		if (hit == names.end()) {
			why = "unknown field {" + std::string(name) +
			      "} in block page address (known: {host} {url} {path} {service} {device} {mac} {client})";
			return std::nullopt;
		}
		if (!literal.empty())
			page.pieces_.push_back({ Field::literal, std::move(literal) });
		literal.clear();
		page.pieces_.push_back({ hit->second, "" });
		i = close;
	}
	if (!literal.empty())
		page.pieces_.push_back({ Field::literal, std::move(literal) });
	size_t fixed = 0;
	for (const Piece &p : page.pieces_)
		fixed += p.literal.size();
	if (fixed > kMaxBlockPage) {
		why = "block page address longer than 511 characters";
		return std::nullopt;
	}
	return page;
}

std::string BlockPage::render(const PageFields &f) const
{
	std::string out;
	for (const Piece &p : pieces_) {
		switch (p.field) {
		case Field::literal: out += p.literal; break;
		case Field::host: out += percent_encode(f.host); break;
		case Field::url: out += percent_encode(f.host + f.path); break;
		case Field::path: out += percent_encode(f.path); break;
		case Field::service: out += percent_encode(f.service); break;
		case Field::device: out += percent_encode(f.device); break;
		case Field::mac: out += percent_encode(f.mac); break;
		case Field::client: out += percent_encode(f.client); break;
		}
		if (out.size() > kMaxBlockPage)
			break;
	}
	if (out.size() <= kMaxBlockPage)
		return out;
	out.resize(kMaxBlockPage);
	// An escape cut after its '%' or its first digit goes whole.
	for (size_t back = 1; back <= 2; back++)
		if (out[out.size() - back] == '%') {
			out.resize(out.size() - back);
			break;
		}
	return out;
}

} // namespace policy
