#pragma once
// tshark as a second dissector for the tests.
#include <string>
#include <vector>

// True when tshark is on the PATH. Tests that need it skip otherwise.
bool have_tshark();

// tshark's checksum validation for IPv4, TCP and UDP (the *.checksum.status
// fields: 1 good, 0 bad).
extern const char kTsharkCheckChecksums[];

using TsharkRows = std::vector<std::vector<std::string>>;

// Runs `tshark -n -r path options [-Y filter] -T fields -E separator=/t
// -e field...` and gives one row per packet shown, one cell per field
// (empty when the packet has none; several occurrences joined by ',').
// False when tshark cannot be started, exits with an error, or prints a
// line that does not have one cell per field.
bool tshark_fields(const std::string &path, const std::string &options, const std::string &filter,
		   const std::vector<std::string> &fields, TsharkRows *rows);
