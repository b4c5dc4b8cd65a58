// SPDX-License-Identifier: MIT
#include "Foundation/QVFileOperations.h"

#include "Foundation/QVUUID.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

namespace {

class QVDescriptor {
public:
  explicit QVDescriptor(int fd) : fd_(fd) {}
  QVDescriptor(const QVDescriptor&) = delete;
  QVDescriptor& operator=(const QVDescriptor&) = delete;
  ~QVDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // Closes now so that a late write error (NFS reports them here) is seen; 0 or the errno.
  int close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

private:
  int fd_;
};

constexpr size_t kKernelCopyChunk = size_t{1} << 30;
constexpr size_t kCopyBufferSize = size_t{1} << 20;

bool fail(QVError* error, int code) {
  if (error) *error = QVErrorFromErrno(code);
  return false;
}

bool somethingExists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// Whether a kernel copy call was refused as such (not for this pair of files, not by this kernel), so that
// the next way may be tried, as opposed to failing on the way.
bool refused(int code) {
  return code == EXDEV || code == ENOSYS || code == EINVAL || code == EOPNOTSUPP || code == ENOTTY;
}

// 0, the errno, or -1 when the call is refused; `copy` moves up to a given count from one descriptor's
// offset to the other's, as copy_file_range and sendfile do. Stops once `remaining` bytes went over.
template <class Copy> int copyInKernel(uint64_t& remaining, Copy copy) {
  while (remaining > 0) {
    const ssize_t copied = copy(static_cast<size_t>(std::min<uint64_t>(remaining, kKernelCopyChunk)));
    if (copied > 0) {
      remaining -= static_cast<uint64_t>(copied);
      continue;
    }
    if (copied == 0) return 0;
    if (errno == EINTR) continue;
    return refused(errno) ? -1 : errno;
  }
  return 0;
}

// 0 or the errno. Copies at most `limit` bytes: a file that grows meanwhile never fills the disk.
int copyContents(int in, int out, uint64_t limit) {
  // A reflink shares the blocks, so even a large document costs next to nothing; then a copy in the kernel
  // (server-side on network file systems), then sendfile; file systems that refuse them all get a plain loop.
  // Each way picks up at the offsets the one before may have advanced.
  if (ioctl(out, FICLONE, in) == 0) {
    struct stat cloned;
    if (fstat(out, &cloned) != 0) return errno;
    const auto bound = static_cast<off_t>(limit);
    return cloned.st_size <= bound || ftruncate(out, bound) == 0 ? 0 : errno;
  }
  uint64_t remaining = limit;
  int code = copyInKernel(remaining,
                          [&](size_t count) { return copy_file_range(in, nullptr, out, nullptr, count, 0); });
  if (code < 0)
    code = copyInKernel(remaining, [&](size_t count) { return sendfile(out, in, nullptr, count); });
  if (code >= 0) return code;
  std::vector<uint8_t> buffer(kCopyBufferSize);
  while (remaining > 0) {
    const ssize_t count =
        ::read(in, buffer.data(), static_cast<size_t>(std::min<uint64_t>(remaining, buffer.size())));
    if (count == 0) return 0;
    if (count < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (!QVWriteAll(out, buffer.data(), static_cast<size_t>(count))) return errno;
    remaining -= static_cast<uint64_t>(count);
  }
  return 0;
}

// 0 or the errno; the file stops at the size `in` had when `info` was read, and a partial destination is
// never left behind.
int copyOpenFile(int in, const struct stat& info, const std::string& destination, mode_t mode) {
  QVDescriptor out(::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (out.get() < 0) return errno;
  int code = copyContents(in, out.get(), static_cast<uint64_t>(info.st_size));
  if (code == 0) {
    // The copy keeps the document's date, as its origin reports it; a file system without times is no reason
    // to fail.
    const timespec times[2] = {info.st_atim, info.st_mtim};
    (void)futimens(out.get(), times);
    code = out.close();
  }
  if (code != 0) ::unlink(destination.c_str());
  return code;
}

// The error for an item that is not a regular file.
int notRegularFile(const struct stat& info) {
  return S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
}

// 0 or the errno.
int copyRegularFile(const std::string& source, const std::string& destination) {
  struct stat info;
  if (stat(source.c_str(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return notRegularFile(info);
  // Without O_NONBLOCK a FIFO swapped in since would hold this thread until a writer came.
  QVDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (in.get() < 0) return errno;
  if (fstat(in.get(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return notRegularFile(info);
  return copyOpenFile(in.get(), info, destination, S_IRUSR | S_IWUSR);
}

// 0 or the errno; never leaves a partial destination behind.
int copyFile(const std::string& source, const std::string& destination) {
  QVDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return errno;
  struct stat info;
  if (fstat(in.get(), &info) != 0) return errno;
  return copyOpenFile(in.get(), info, destination, info.st_mode & 07777);
}

// 0 or the errno.
int copyItem(const std::string& source, const std::string& destination) {
  if (somethingExists(destination)) return EEXIST;
  struct stat info;
  if (stat(source.c_str(), &info) != 0) return errno;
  if (!S_ISDIR(info.st_mode)) return copyFile(source, destination);
  std::error_code error;
  fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (!error) return 0;
  std::error_code ignored;
  fs::remove_all(destination, ignored);
  return error.value();
}

// rename(2), never over a folder: a folder in the way is the user's data, not a stale destination.
int renameReplacing(const std::string& source, const std::string& destination) {
  if (QVIsFolderTarget(destination)) return EISDIR;
  return ::rename(source.c_str(), destination.c_str()) == 0 ? 0 : errno;
}

} // namespace

bool QVCopyItem(const std::string& source, const std::string& destination, QVError* error) {
  const int code = copyItem(source, destination);
  return code == 0 || fail(error, code);
}

bool QVCopyRegularFile(const std::string& source, const std::string& destination, QVError* error) {
  const int code = somethingExists(destination) ? EEXIST : copyRegularFile(source, destination);
  return code == 0 || fail(error, code);
}

bool QVMoveItemReplacing(const std::string& source, const std::string& destination, QVError* error) {
  const int code = renameReplacing(source, destination);
  if (code == 0) return true;
  if (code != EXDEV) return fail(error, code);

  // Across file systems the copy goes to a hidden name beside the destination first, so that the destination
  // is only ever the old item or the whole new one.
  if (QVIsFolderTarget(destination)) return fail(error, EISDIR);
  const fs::path destinationPath(destination);
  const std::string temporary = (destinationPath.parent_path() / (".qvmove-" + QVUUIDString())).string();
  if (const int copyCode = copyItem(source, temporary); copyCode != 0) return fail(error, copyCode);
  if (const int renameCode = renameReplacing(temporary, destination); renameCode != 0) {
    std::error_code ignored;
    fs::remove_all(temporary, ignored);
    return fail(error, renameCode);
  }
  // The destination is complete; a source that cannot be removed is left as a stray copy.
  QVRemoveItem(source);
  return true;
}

std::optional<QVFileAttributes> QVAttributesOfItem(const std::string& path, QVError* error) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    fail(error, errno);
    return std::nullopt;
  }
  QVFileAttributes attributes;
  attributes.fileSize = static_cast<uint64_t>(info.st_size);
  const auto sinceEpoch =
      std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec);
  attributes.fileModificationDate = QVDate(std::chrono::duration_cast<QVDate::duration>(sinceEpoch));
  attributes.isDirectory = S_ISDIR(info.st_mode);
  return attributes;
}

bool QVFileExists(const std::string& path, bool* isDirectory) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return false;
  if (isDirectory) *isDirectory = S_ISDIR(info.st_mode);
  return true;
}

bool QVCreateDirectory(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  return fs::is_directory(path, error);
}

bool QVRemoveItem(const std::string& path) {
  if (!somethingExists(path)) return false;
  std::error_code error;
  fs::remove_all(path, error);
  return !error;
}

QVError QVErrorFromErrno(int code) {
  return QVError{QVPOSIXErrorDomain, code, {}};
}

bool QVIsFolderTarget(const std::string& path) {
  if (!path.empty() && path.back() == '/') return true;
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool QVWriteAll(int descriptor, const uint8_t* bytes, size_t length) {
  for (size_t done = 0; done < length;) {
    const ssize_t written = ::write(descriptor, bytes + done, length - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(written);
  }
  return true;
}

bool QVCopyOwnerModeAndAttributes(const std::string& path, int descriptor) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return false;
  // Only root may give a file away; the group may still be one of ours. Before the mode: chown clears set-id
  // bits.
  if (fchown(descriptor, info.st_uid, info.st_gid) != 0)
    (void)fchown(descriptor, static_cast<uid_t>(-1), info.st_gid);
  (void)fchmod(descriptor, info.st_mode & 07777);
  const ssize_t listSize = listxattr(path.c_str(), nullptr, 0);
  if (listSize <= 0) return true;
  std::vector<char> names(static_cast<size_t>(listSize));
  const ssize_t listed = listxattr(path.c_str(), names.data(), names.size());
  if (listed <= 0) return true;
  std::vector<uint8_t> value;
  for (size_t start = 0; start < static_cast<size_t>(listed);) {
    const char* name = names.data() + start;
    start += std::char_traits<char>::length(name) + 1;
    const ssize_t size = getxattr(path.c_str(), name, nullptr, 0);
    if (size < 0) continue;
    value.resize(static_cast<size_t>(size));
    const ssize_t read = getxattr(path.c_str(), name, value.data(), value.size());
    // Attributes of namespaces this process may not write (security, trusted) are the system's to keep.
    if (read >= 0) (void)fsetxattr(descriptor, name, value.data(), static_cast<size_t>(read), 0);
  }
  return true;
}

bool QVLinkOpenFile(int descriptor, const std::string& path, QVError* error) {
  // AT_EMPTY_PATH needs a capability; the descriptor's /proc link does the same for anyone.
  const std::string procPath = "/proc/self/fd/" + std::to_string(descriptor);
  if (linkat(AT_FDCWD, procPath.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) return true;
  return fail(error, errno);
}

bool QVSyncParentFolder(const std::string& path) {
  fs::path parent = fs::path(path).parent_path();
  if (parent.empty()) parent = ".";
  QVDescriptor folder(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.get() >= 0 && fsync(folder.get()) == 0;
}
