// SPDX-License-Identifier: MIT
#pragma once
// A file handle open for writing or reading; closes itself when it goes away.

#include "Foundation/QVTypes.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QVFileHandle {
public:
  // Opens an existing file for writing at its start (truncating nothing), or none.
  static std::shared_ptr<QVFileHandle> forWritingAtPath(const std::string& path);
  // Creates or truncates the file and opens it for writing, or none.
  static std::shared_ptr<QVFileHandle> forCreatingAtPath(const std::string& path);
  static std::shared_ptr<QVFileHandle> forReadingAtPath(const std::string& path);

  QVFileHandle(const QVFileHandle&) = delete;
  QVFileHandle& operator=(const QVFileHandle&) = delete;
  ~QVFileHandle();

  // Writes all of it; false on any failure.
  bool write(const uint8_t* bytes, size_t length);
  bool write(const QVData& data) { return write(data.data(), data.size()); }
  // Up to `length` bytes; an empty buffer at the end of the file, none on failure.
  std::optional<QVData> read(size_t length);
  void close();
  bool isOpen() const { return fd_ >= 0; }
  int fileDescriptor() const { return fd_; }

private:
  explicit QVFileHandle(int fd) : fd_(fd) {}
  int fd_ = -1;
};
