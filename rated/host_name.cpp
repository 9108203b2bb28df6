#include "rated/host_name.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace policy {

namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; }

// The literal's canonical text, or "" when `text` is none.
std::string canonical_ip(const std::string &text)
{
	std::array<unsigned char, 16> buf;
	char out[INET6_ADDRSTRLEN];
	if (inet_pton(AF_INET, text.c_str(), buf.data()) == 1)
		return inet_ntop(AF_INET, buf.data(), out, sizeof(out));
	if (inet_pton(AF_INET6, text.c_str(), buf.data()) == 1)
		return inet_ntop(AF_INET6, buf.data(), out, sizeof(out));
	return "";
}

bool name_char(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_'; }

} // namespace

std::string canonical_host(std::string_view host)
{
	while (!host.empty() && (host.front() == ' ' || host.front() == '\t'))
		host.remove_prefix(1);
	while (!host.empty() && (host.back() == ' ' || host.back() == '\t'))
		host.remove_suffix(1);
	if (!host.empty() && host.front() == '[') {
		size_t close = host.find(']');
		host = host.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1);
	} else if (std::count(host.begin(), host.end(), ':') == 1) {
		host = host.substr(0, host.find(':'));
	}
	while (!host.empty() && host.back() == '.')
		host.remove_suffix(1);
	std::string s(host);
	std::transform(s.begin(), s.end(), s.begin(), lower);
	std::string ip = canonical_ip(s);
	return ip.empty() ? s : ip;
}

bool is_ip_literal(std::string_view host) { return !canonical_ip(std::string(host)).empty(); }

std::string rule_host(std::string_view text, std::string &why)
{
	if (text.size() > 2 && text.front() == '[' && text.back() == ']')
		text = text.substr(1, text.size() - 2);
	std::string s(text);
	std::transform(s.begin(), s.end(), s.begin(), lower);
	if (std::string ip = canonical_ip(s); !ip.empty())
		return ip;
	while (!s.empty() && s.back() == '.')
		s.pop_back();
	if (s.empty()) {
		why = "empty host name";
		return "";
	}
	if (s.find('*') != std::string::npos) {
		why = "no wildcards: a name already matches every name under it";
		return "";
	}
	if (s.size() > 253) {
		why = "host name longer than 253 characters";
		return "";
	}
	size_t label = 0;
	for (char c : s) {
		if (c == '.') {
			if (label == 0) {
				why = "empty label in host name '" + s + "'";
				return "";
			}
			label = 0;
			continue;
		}
		if (!name_char(c)) {
			why = "bad character '" + std::string(1, c) + "' in host name '" + s + "'";
			return "";
		}
		if (++label > 63) {
			why = "label longer than 63 characters in '" + s + "'";
			return "";
		}
	}
	if (label == 0) {
		why = "empty label in host name '" + s + "'";
		return "";
	}
	return s;
}

std::string_view parent_domain(std::string_view name)
{
	size_t dot = name.find('.');
	return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

} // namespace policy
