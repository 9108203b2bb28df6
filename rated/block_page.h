#pragma once
// The block page address: a template such as
// "http://blocked.lan/?host={host}&url={url}" whose fields are filled in,
// percent-encoded, for each blocked request.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace policy {

// What a template can name: {host} {url} {path} {service} {device} {mac} {client}.
struct PageFields {
	std::string host;    // the host as asked
	std::string path;    // the request path ("" or "/" for flows)
	std::string service; // "wp" or "pc"
	std::string device;  // the device's name, else its MAC, else ""
	std::string mac;     // "00:11:22:33:44:55" or ""
	std::string client;  // the client's address or ""
};

// The longest address the reply record carries.
constexpr size_t kMaxBlockPage = 511;

class BlockPage {
public:
	// nullopt with the reason in `why` for an unknown or unterminated
	// field, a space or a control character.
	static std::optional<BlockPage> parse(std::string_view text, std::string &why);

	// The address, at most kMaxBlockPage characters; an escape ("%2F")
	// that the limit would cut in two is left out whole.
	std::string render(const PageFields &f) const;

	const std::string &text() const { return text_; }

private:
	enum class Field { literal, host, url, path, service, device, mac, client };
	struct Piece {
		Field field;
		std::string literal;
	};
	std::vector<Piece> pieces_;
	std::string text_;
};

// Every byte but the unreserved ones (letters, digits, "-._~") as %XX.
std::string percent_encode(std::string_view s);

} // namespace policy
