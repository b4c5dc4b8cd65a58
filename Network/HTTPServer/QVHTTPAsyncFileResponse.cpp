#include "Network/HTTPServer/QVHTTPAsyncFileResponse.h"

#include "Foundation/QVLog.h"
#include "Network/HTTPServer/QVHTTPConnection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

QV_LOG_SOURCE("Network/QVHTTPAsyncFileResponse")

namespace {
// Reads stay page-aligned so that a block cipher applied to each chunk neither holds bytes back nor
// grows a chunk until the last one.
constexpr size_t kReadAlignment = 4096;
constexpr size_t kMaxReadLength = 1024 * 1024;
} // namespace

QVHTTPAsyncFileResponse::QVHTTPAsyncFileResponse(const std::string& filePath,
                                                 const std::shared_ptr<QVHTTPConnection>& connection)
    : connection_(connection) {
  std::unique_ptr<std::FILE, QVCFree<&fclose>> file(std::fopen(filePath.c_str(), "rbe"));
  struct stat status {};
  if (!file || fstat(fileno(file.get()), &status) != 0 || !S_ISREG(status.st_mode)) {
    QV_LOG_DEBUG("Couldn't open {} for reading ({})", filePath, std::strerror(errno));
    return;
  }
  std::setvbuf(file.get(), nullptr, _IONBF, 0); // our chunks are the buffer
  fileLength_ = static_cast<uint64_t>(status.st_size);
  file_ = std::move(file);
}

QVHTTPAsyncFileResponse::~QVHTTPAsyncFileResponse() = default;

void QVHTTPAsyncFileResponse::processReadBuffer() {
  dataReady_ = std::move(readBuffer_);
  readBuffer_.clear();
}

void QVHTTPAsyncFileResponse::abort() {
  aborted_ = true;
  if (auto connection = connection_.lock()) connection->disconnect();
}

bool QVHTTPAsyncFileResponse::readNextChunk(size_t capacity) {
  size_t length = std::min(capacity, kMaxReadLength);
  if (length > kReadAlignment) length -= length % kReadAlignment;
  length = static_cast<size_t>(std::min<uint64_t>(length, fileLength_ - readOffset_));
  readBuffer_.resize(length);
  if (length > 0 && std::fread(readBuffer_.data(), 1, length, file_.get()) != length) {
    // The file shrank under us: what was announced can no longer be sent.
    QV_LOG_DEBUG("Couldn't read {} bytes at offset {}", length, readOffset_);
    return false;
  }
  readOffset_ += length;
  return true;
}

std::optional<size_t> QVHTTPAsyncFileResponse::readData(uint8_t* buffer, size_t capacity) {
  if (!file_) return std::nullopt;
  while (dataReadyOffset_ >= dataReady_.size()) {
    if (aborted_) return std::nullopt;
    if (isDone()) return 0;
    const bool endOfFile = readOffset_ >= fileLength_;
    if (!readNextChunk(capacity)) {
      abort();
      return std::nullopt;
    }
    dataReady_.clear();
    dataReadyOffset_ = 0;
    processReadBuffer();
    // A subclass that neither finishes nor fails once the file is exhausted would spin here forever.
    if (endOfFile && dataReady_.empty() && !isDone() && !aborted_) abort();
  }
  if (aborted_) return std::nullopt;
  const size_t length = std::min(capacity, dataReady_.size() - dataReadyOffset_);
  std::memcpy(buffer, dataReady_.data() + dataReadyOffset_, length);
  dataReadyOffset_ += length;
  return length;
}
