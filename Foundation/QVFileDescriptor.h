// SPDX-License-Identifier: MIT
#pragma once
// Owns a POSIX file descriptor and closes it when it goes away.

#include <unistd.h>
#include <utility>

class QVFileDescriptor {
public:
  QVFileDescriptor() = default;
  explicit QVFileDescriptor(int fd) : fd_(fd) {}
  QVFileDescriptor(QVFileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  QVFileDescriptor& operator=(QVFileDescriptor&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  QVFileDescriptor(const QVFileDescriptor&) = delete;
  QVFileDescriptor& operator=(const QVFileDescriptor&) = delete;
  ~QVFileDescriptor() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  // Closes now and reports whether the close succeeded: a failed close may mean lost writes.
  bool close() {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || ::close(fd) == 0;
  }

private:
  int fd_ = -1;
};
