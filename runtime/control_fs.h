#pragma once
// The control files as a FUSE mount (libfuse3, low level, driven by the
// event loop): the filter's four write-only files, whose write() returns
// exactly what the filter's handler returns, with the modes the filter
// gave them, and read-only status files whose text a provider makes.
#include <functional>
#include <string>
#include <vector>

struct fuse_session;

namespace dnshookd {

class ControlFs {
public:
	// Called with the file's name after each write that reached a handler.
	using WriteHook = std::function<void(const std::string &file)>;
	// The text of a status file, made at each read.
	using StatusText = std::function<std::string(const std::string &file)>;

	ControlFs(const std::string &dir, std::vector<std::string> control_files,
		  std::vector<std::string> status_files, WriteHook on_write, StatusText status);
	~ControlFs();
	ControlFs(const ControlFs &) = delete;
	ControlFs &operator=(const ControlFs &) = delete;

	int fd(void) const;
	// Serves the requests waiting on fd(); false once the mount is gone.
	bool on_readable(void);

	struct Node {
		std::string name;
		bool control; // a filter file (else a status file)
	};
	const Node *node(unsigned long ino) const;
	unsigned long find(const std::string &name) const;
	const std::vector<Node> &nodes() const { return nodes_; }
	const WriteHook &write_hook() const { return on_write_; }
	const StatusText &status_text() const { return status_; }

private:
	std::string dir_;
	std::vector<Node> nodes_; // inode = index + 2 (1 is the directory)
	WriteHook on_write_;
	StatusText status_;
	struct fuse_session *se_ = nullptr;
	bool mounted_ = false;
};

} // namespace dnshookd
