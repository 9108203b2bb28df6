// The control files (see control_fs.h).
#define FUSE_USE_VERSION 35
#include "runtime/control_fs.h"

#include <fuse_lowlevel.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <algorithm>

#include "kmodel/host.h"
#include "linux/proc_fs.h"
#include "runtime/fd.h"

namespace dnshookd {

namespace {

const fuse_ino_t kRoot = FUSE_ROOT_ID;

ControlFs *self(fuse_req_t req) { return (ControlFs *)fuse_req_userdata(req); }

bool attr_of(ControlFs *fs, fuse_ino_t ino, struct stat &st)
{
	memset(&st, 0, sizeof(st));
	st.st_ino = ino;
	st.st_uid = 0;
	st.st_gid = 0;
	if (ino == kRoot) {
		st.st_mode = S_IFDIR | 0755;
		st.st_nlink = 2;
		return true;
	}
	const ControlFs::Node *n = fs->node(ino);
	if (!n)
		return false;
	st.st_nlink = 1;
	if (n->control) {
		const struct proc_dir_entry *e = kmodel_proc_entry(n->name.c_str());
		st.st_mode = S_IFREG | (e ? (e->mode & 07777) : 0);
	} else {
		st.st_mode = S_IFREG | 0444;
	}
	return true;
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name)
{
	ControlFs *fs = self(req);
	fuse_entry_param e{};
	unsigned long ino = parent == kRoot ? fs->find(name) : 0;
	if (!ino || !attr_of(fs, ino, e.attr)) {
		fuse_reply_err(req, ENOENT);
		return;
	}
	e.ino = ino;
	fuse_reply_entry(req, &e);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info *)
{
	struct stat st;
	if (!attr_of(self(req), ino, st)) {
		fuse_reply_err(req, ENOENT);
		return;
	}
	fuse_reply_attr(req, &st, 0);
}

// Truncation (a shell's "> file") changes nothing: the files hold no data.
void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *, int, fuse_file_info *fi)
{
	op_getattr(req, ino, fi);
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *)
{
	ControlFs *fs = self(req);
	if (ino != kRoot) {
		fuse_reply_err(req, ENOTDIR);
		return;
	}
	std::vector<char> buf(size);
	size_t used = 0;
	std::vector<std::pair<std::string, fuse_ino_t>> entries = {{".", kRoot}, {"..", kRoot}};
	for (size_t i = 0; i < fs->nodes().size(); i++)
		entries.emplace_back(fs->nodes()[i].name, i + 2);
	for (size_t i = (size_t)off; i < entries.size(); i++) {
		struct stat st;
		attr_of(fs, entries[i].second, st);
		size_t need = fuse_add_direntry(req, nullptr, 0, entries[i].first.c_str(), nullptr, 0);
		if (used + need > size)
			break;
		fuse_add_direntry(req, buf.data() + used, size - used, entries[i].first.c_str(), &st, (off_t)i + 1);
		used += need;
	}
	fuse_reply_buf(req, buf.data(), used);
}

void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi)
{
	const ControlFs::Node *n = self(req)->node(ino);
	if (!n) {
		fuse_reply_err(req, ino == kRoot ? EISDIR : ENOENT);
		return;
	}
	if (!n->control && (fi->flags & O_ACCMODE) != O_RDONLY) {
		fuse_reply_err(req, EACCES);
		return;
	}
	fi->direct_io = 1; // sizes are not known ahead; read and write go straight through
	fi->nonseekable = 0;
	fuse_reply_open(req, fi);
}

void op_read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *)
{
	ControlFs *fs = self(req);
	const ControlFs::Node *n = fs->node(ino);
	if (!n || n->control) {
		// The filter's files have no read handler: nothing to read.
		fuse_reply_buf(req, nullptr, 0);
		return;
	}
	std::string text = fs->status_text()(n->name);
	if ((size_t)off >= text.size()) {
		fuse_reply_buf(req, nullptr, 0);
		return;
	}
	size_t len = std::min(size, text.size() - (size_t)off);
	fuse_reply_buf(req, text.data() + off, len);
}

void op_write(fuse_req_t req, fuse_ino_t ino, const char *buf, size_t size, off_t, fuse_file_info *)
{
	ControlFs *fs = self(req);
	const ControlFs::Node *n = fs->node(ino);
	if (!n || !n->control) {
		fuse_reply_err(req, EACCES);
		return;
	}
	int ret = kmodel_proc_write(n->name.c_str(), buf, size);
	fs->write_hook()(n->name);
	if (ret < 0)
		fuse_reply_err(req, -ret);
	else
		fuse_reply_write(req, (size_t)ret);
}

const fuse_lowlevel_ops kOps = [] {
	fuse_lowlevel_ops ops{};
	ops.lookup = op_lookup;
	ops.getattr = op_getattr;
	ops.setattr = op_setattr;
	ops.readdir = op_readdir;
	ops.open = op_open;
	ops.read = op_read;
	ops.write = op_write;
	return ops;
}();

} // namespace

ControlFs::ControlFs(const std::string &dir, std::vector<std::string> control_files,
		     std::vector<std::string> status_files, WriteHook on_write, StatusText status)
	: dir_(dir), on_write_(std::move(on_write)), status_(std::move(status))
{
	for (auto &f : control_files)
		nodes_.push_back(Node{f, true});
	for (auto &f : status_files)
		nodes_.push_back(Node{f, false});

	if (mkdir(dir_.c_str(), 0755) < 0 && errno != EEXIST)
		throw Fatal{"--control " + dir_ + ": " + strerror(errno)};
	// A mount left by a killed instance: its connection is dead, take it away.
	umount2(dir_.c_str(), MNT_DETACH);

	const char *argv[] = {"dnshookd", "-o", "default_permissions,allow_other,auto_unmount,fsname=dnshook,subtype=dnshook", nullptr};
	fuse_args args = FUSE_ARGS_INIT(3, (char **)argv);
	se_ = fuse_session_new(&args, &kOps, sizeof(kOps), this);
	// The session copied what it needs; the library may have grown the list.
	fuse_opt_free_args(&args);
	if (!se_)
		throw Fatal{"--control " + dir_ + ": cannot start a FUSE session"};
	if (fuse_session_mount(se_, dir_.c_str()) != 0) {
		// No destructor runs for a constructor that throws.
		fuse_session_destroy(se_);
		se_ = nullptr;
		throw Fatal{"--control " + dir_ + ": cannot mount the control files (is /dev/fuse there?)"};
	}
	mounted_ = true;
}

ControlFs::~ControlFs()
{
	if (mounted_)
		fuse_session_unmount(se_);
	if (se_)
		fuse_session_destroy(se_);
}

int ControlFs::fd(void) const { return fuse_session_fd(se_); }

bool ControlFs::on_readable(void)
{
	fuse_buf buf{};
	int n = fuse_session_receive_buf(se_, &buf);
	if (n > 0)
		fuse_session_process_buf(se_, &buf);
	free(buf.mem);
	if (n == -EINTR || n == -EAGAIN)
		return true;
	return n > 0 && !fuse_session_exited(se_);
}

const ControlFs::Node *ControlFs::node(unsigned long ino) const
{
	if (ino < 2 || ino - 2 >= nodes_.size())
		return nullptr;
	return &nodes_[ino - 2];
}

unsigned long ControlFs::find(const std::string &name) const
{
	for (size_t i = 0; i < nodes_.size(); i++)
		if (nodes_[i].name == name)
			return i + 2;
	return 0;
}

} // namespace dnshookd
