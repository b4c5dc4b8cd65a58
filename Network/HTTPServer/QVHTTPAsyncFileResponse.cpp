// SPDX-License-Identifier: MIT
#include "Network/HTTPServer/QVHTTPAsyncFileResponse.h"

#include "Foundation/QVLog.h"
#include "Network/HTTPServer/QVHTTPConnection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

QV_LOG_SOURCE("Network/QVHTTPAsyncFileResponse")

namespace {
// Reads stay page-aligned so that a block cipher applied to each chunk neither holds bytes back nor
// grows a chunk until the last one, and leave room for what a transform adds (a cipher's last block), so
// that a chunk never spills into a pull of its own.
constexpr size_t kReadAlignment = 4096;
constexpr size_t kTransformRoom = 64;
constexpr size_t kMaxReadLength = 1024 * 1024;
} // namespace

QVHTTPAsyncFileResponse::QVHTTPAsyncFileResponse(const std::string& filePath,
                                                 const std::shared_ptr<QVHTTPConnection>& connection)
    : connection_(connection) {
  const int fd = ::open(filePath.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    QV_LOG_DEBUG("Couldn't open {} for reading ({})", filePath, std::strerror(errno));
    if (fd >= 0) ::close(fd);
    return;
  }
  // The whole file is read once, front to back.
  (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  fileLength_ = static_cast<uint64_t>(status.st_size);
  fd_ = fd;
}

QVHTTPAsyncFileResponse::~QVHTTPAsyncFileResponse() {
  if (fd_ >= 0) ::close(fd_);
}

size_t QVHTTPAsyncFileResponse::processReadBuffer(std::span<uint8_t> output) {
  const size_t length = std::min(readBuffer_.size(), output.size());
  std::copy_n(readBuffer_.begin(), length, output.begin());
  dataReady_.insert(dataReady_.end(), readBuffer_.begin() + static_cast<std::ptrdiff_t>(length),
                    readBuffer_.end());
  return length;
}

void QVHTTPAsyncFileResponse::abort() {
  aborted_ = true;
  if (auto connection = connection_.lock()) connection->disconnect();
}

bool QVHTTPAsyncFileResponse::readNextChunk(size_t capacity) {
  size_t length = std::min(capacity, kMaxReadLength);
  if (length > kReadAlignment + kTransformRoom)
    length = (length - kTransformRoom) / kReadAlignment * kReadAlignment;
  length = static_cast<size_t>(std::min<uint64_t>(length, fileLength_ - readOffset_));
  if (length > readStorageSize_) {
    readStorage_ = std::make_unique_for_overwrite<uint8_t[]>(length);
    readStorageSize_ = length;
  }
  for (size_t filled = 0; filled < length;) {
    const ssize_t count = ::read(fd_, readStorage_.get() + filled, length - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      // The file shrank under us: what was announced can no longer be sent.
      QV_LOG_DEBUG("Couldn't read {} bytes at offset {}", length, readOffset_ + filled);
      return false;
    }
    filled += static_cast<size_t>(count);
  }
  readBuffer_ = std::span<const uint8_t>(readStorage_.get(), length);
  readOffset_ += length;
  return true;
}

std::optional<size_t> QVHTTPAsyncFileResponse::readData(uint8_t* buffer, size_t capacity) {
  if (fd_ < 0) return std::nullopt;
  while (true) {
    if (aborted_) return std::nullopt;
    if (dataReadyOffset_ < dataReady_.size()) {
      const size_t length = std::min(capacity, dataReady_.size() - dataReadyOffset_);
      std::memcpy(buffer, dataReady_.data() + dataReadyOffset_, length);
      dataReadyOffset_ += length;
      return length;
    }
    dataReady_.clear();
    dataReadyOffset_ = 0;
    if (isDone()) return 0;
    const bool endOfFile = readOffset_ >= fileLength_;
    if (!readNextChunk(capacity)) {
      abort();
      return std::nullopt;
    }
    const size_t length = processReadBuffer(std::span<uint8_t>(buffer, capacity));
    readBuffer_ = {};
    if (aborted_) return std::nullopt;
    if (length > 0) return length;
    // A subclass that neither finishes nor fails once the file is exhausted would spin here forever.
    if (endOfFile && dataReady_.empty() && !isDone()) abort();
  }
}
