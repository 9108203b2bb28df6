#pragma once
// A file descriptor owned by one object: closed when it goes.
#include <unistd.h>

#include <string>
#include <utility>

namespace dnshookd {

class Fd {
public:
	Fd() = default;
	explicit Fd(int fd) : fd_(fd) {}
	~Fd() { reset(); }
	Fd(Fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
	Fd &operator=(Fd &&o) noexcept
	{
		if (this != &o) {
			reset();
			fd_ = std::exchange(o.fd_, -1);
		}
		return *this;
	}
	Fd(const Fd &) = delete;
	Fd &operator=(const Fd &) = delete;

	int get() const { return fd_; }
	explicit operator bool() const { return fd_ >= 0; }
	void reset()
	{
		if (fd_ >= 0)
			::close(fd_);
		fd_ = -1;
	}

private:
	int fd_ = -1;
};

// Thrown by set-up code; main() prints it and exits with `code`.
struct Fatal {
	std::string message;
	int code = 1;
};

} // namespace dnshookd
