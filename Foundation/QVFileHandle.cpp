// SPDX-License-Identifier: MIT
#include "Foundation/QVFileHandle.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

int openDescriptor(const std::string& path, int flags) {
  int fd;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

} // namespace

// The constructor is private so that a handle only ever wraps a descriptor it owns.
std::shared_ptr<QVFileHandle> QVFileHandle::forWritingAtPath(const std::string& path) {
  const int fd = openDescriptor(path, O_WRONLY);
  return fd < 0 ? nullptr : std::shared_ptr<QVFileHandle>(new QVFileHandle(fd));
}

std::shared_ptr<QVFileHandle> QVFileHandle::forCreatingAtPath(const std::string& path) {
  const int fd = openDescriptor(path, O_WRONLY | O_CREAT | O_TRUNC);
  return fd < 0 ? nullptr : std::shared_ptr<QVFileHandle>(new QVFileHandle(fd));
}

std::shared_ptr<QVFileHandle> QVFileHandle::forReadingAtPath(const std::string& path) {
  const int fd = openDescriptor(path, O_RDONLY);
  return fd < 0 ? nullptr : std::shared_ptr<QVFileHandle>(new QVFileHandle(fd));
}

QVFileHandle::~QVFileHandle() {
  close();
}

bool QVFileHandle::write(const uint8_t* bytes, size_t length) {
  if (fd_ < 0) return false;
  while (length > 0) {
    const ssize_t written = ::write(fd_, bytes, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

std::optional<QVData> QVFileHandle::read(size_t length) {
  if (fd_ < 0) return std::nullopt;
  QVData buffer(length);
  size_t filled = 0;
  while (filled < length) {
    const ssize_t count = ::read(fd_, buffer.data() + filled, length - filled);
    if (count < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (count == 0) break;
    filled += static_cast<size_t>(count);
  }
  buffer.resize(filled);
  return buffer;
}

void QVFileHandle::close() {
  // Not retried on EINTR: on Linux the descriptor is gone either way.
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}
