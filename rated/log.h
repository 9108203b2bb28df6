#pragma once
// The daemon's log: stderr lines with the local time, or syslog.
#include <string>

namespace rated {

enum class Level { error = 0, warning = 1, info = 2, debug = 3 };

class Log {
public:
	Log(Level level, bool syslog);
	~Log();
	Log(const Log &) = delete;
	Log &operator=(const Log &) = delete;

	bool enabled(Level l) const { return l <= level_; }
	void write(Level l, const std::string &line);
	void error(const std::string &line) { write(Level::error, line); }
	void warning(const std::string &line) { write(Level::warning, line); }
	void info(const std::string &line) { write(Level::info, line); }

private:
	Level level_;
	bool syslog_;
};

// "error", "warning", "info", "debug"; false for anything else.
bool parse_level(const std::string &text, Level &out);

} // namespace rated
