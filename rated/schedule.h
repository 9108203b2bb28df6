#pragma once
// Time windows of parental control: "sun-thu 21:00-07:00", judged in the
// router's local time (the process's time zone: TZ or /etc/localtime).
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace policy {

struct Window {
	uint8_t days = 0; // bit 0 Sunday .. bit 6 Saturday: the days a window starts on
	int start = 0;    // minutes after midnight
	int end = 0;      // minutes after midnight, 1440 for "24:00"; below start: the next day

	// Whether the window is open at this local time. A window that runs
	// past midnight belongs to the day it starts on: "fri 22:00-02:00" is
	// open early on Saturday, not early on Friday.
	bool open(const std::tm &local) const;
};

// "mon-fri", "sat,sun", "fri-mon", "daily"; names of three letters or in
// full, any case. nullopt with the reason in `why`.
std::optional<uint8_t> parse_days(std::string_view text, std::string &why);

// "21:00-07:00", "00:00-24:00". Equal ends are refused.
std::optional<Window> parse_times(std::string_view text, std::string &why);

} // namespace policy
