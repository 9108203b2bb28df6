#pragma once
// Host names as the policy compares them: lower case, no port, no
// trailing dot, IP literals in their canonical text.
#include <string>
#include <string_view>

namespace policy {

// "WWW.Example.COM.:8080" -> "www.example.com", "[2001:DB8:0::1]:80" ->
// "2001:db8::1", "10.0.0.1:81" -> "10.0.0.1". Never fails: a value that is
// no valid name is still lowered and stripped, and then simply matches no
// rule written for a real name.
std::string canonical_host(std::string_view host);

// An IPv4 or IPv6 literal (no brackets, no port)?
bool is_ip_literal(std::string_view host);

// Checks the host part of a rule and returns its canonical form, or an
// empty string with the reason in `why`.
std::string rule_host(std::string_view text, std::string &why);

// The next shorter suffix on a label boundary: "a.b.c" -> "b.c" -> "c" -> "".
std::string_view parent_domain(std::string_view name);

} // namespace policy
