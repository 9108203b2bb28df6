#include "rated/schedule.h"

#include <array>
#include <cctype>

namespace policy {

namespace {

constexpr std::array<std::string_view, 7> kDays = { "sunday", "monday", "tuesday", "wednesday",
						     "thursday", "friday", "saturday" };

std::optional<int> day_index(std::string_view word)
{
	std::string w;
	for (char c : word)
		w += char(std::tolower((unsigned char)c));
	for (size_t i = 0; i < kDays.size(); i++)
		if (w == kDays[i] || w == kDays[i].substr(0, 3))
			return int(i);
	return std::nullopt;
}

// "HH:MM" with two-digit fields; 24:00 only when allowed.
std::optional<int> minutes(std::string_view t, bool end)
{
	if (t.size() != 5 || t[2] != ':')
		return std::nullopt;
	for (size_t i : { 0, 1, 3, 4 })
		if (!std::isdigit((unsigned char)t[i]))
			return std::nullopt;
	int h = (t[0] - '0') * 10 + (t[1] - '0'), m = (t[3] - '0') * 10 + (t[4] - '0');
	if (m > 59 || h > 24 || (h == 24 && (m != 0 || !end)))
		return std::nullopt;
	return h * 60 + m;
}

} // namespace

bool Window::open(const std::tm &local) const
{
	int now = local.tm_hour * 60 + local.tm_min;
	int today = local.tm_wday, yesterday = (local.tm_wday + 6) % 7;
	if (start < end)
		return (days >> today & 1) && now >= start && now < end;
	return ((days >> today & 1) && now >= start) || ((days >> yesterday & 1) && now < end);
}

std::optional<uint8_t> parse_days(std::string_view text, std::string &why)
{
	if (text == "daily")
		return uint8_t(0x7f);
	uint8_t days = 0;
	while (!text.empty()) {
		size_t comma = text.find(',');
		std::string_view item = text.substr(0, comma);
		text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
		size_t dash = item.find('-');
		auto first = day_index(item.substr(0, dash));
		auto last = dash == std::string_view::npos ? first : day_index(item.substr(dash + 1));
		if (!first || !last) {
			why = "bad days '" + std::string(item) + "' (sun, mon, ..., sat, ranges such as mon-fri, lists such as sat,sun, or daily)";
			return std::nullopt;
		}
		for (int d = *first;; d = (d + 1) % 7) {
			days |= uint8_t(1u << d);
			if (d == *last)
				break;
		}
		if (comma != std::string_view::npos && text.empty()) {
			why = "bad days: list ends with a comma";
			return std::nullopt;
		}
	}
	if (!days)
		why = "no days given";
	return days ? std::optional<uint8_t>(days) : std::nullopt;
}

std::optional<Window> parse_times(std::string_view text, std::string &why)
{
	size_t dash = text.find('-');
	auto start = dash == std::string_view::npos ? std::nullopt : minutes(text.substr(0, dash), false);
	auto end = dash == std::string_view::npos ? std::nullopt : minutes(text.substr(dash + 1), true);
	if (!start || !end) {
		why = "bad time window '" + std::string(text) + "' (HH:MM-HH:MM, 24-hour clock, 24:00 as an end)";
		return std::nullopt;
	}
	if (*start == *end) {
		why = "empty time window '" + std::string(text) + "' (00:00-24:00 is the whole day)";
		return std::nullopt;
	}
	Window w;
	w.start = *start;
	w.end = *end;
	return w;
}

} // namespace policy
