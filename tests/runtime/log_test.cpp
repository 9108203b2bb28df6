// dnshookd's copy of the filter's log lines: the filter logs names from
// packets (a DNS label may hold any byte), the daemon's replies and what
// is written to the control files.
#include <gtest/gtest.h>

#include "runtime/log.h"

namespace {

TEST(Log, EachPrintkLineStaysOneLine)
{
	const struct {
		std::string printk, written;
	} cases[] = {
		{ "<7>[receive_from_user]: [WP]non-HTTP: host=flow.test --> PASS\n",
		  "<7>[receive_from_user]: [WP]non-HTTP: host=flow.test --> PASS" },
		{ "<7>[receive_from_user]: [WP]non-HTTP: host=a\n<6>b\\\x7f\xc3\xa9\t --> PASS\n\n",
		  "<7>[receive_from_user]: [WP]non-HTTP: host=a\\x0a<6>b\\x5c\\x7f\\xc3\\xa9\\x09 --> PASS" },
		{ std::string("<7>[tm_proc_write]: buff=+|\0\r\x1b[2J, len=7", 40),
		  "<7>[tm_proc_write]: buff=+|\\x00\\x0d\\x1b[2J, len=7" },
		{ "", "" },
	};
	for (const auto &c : cases)
		EXPECT_EQ(c.written, dnshookd::log_text(c.printk));
}

} // namespace
