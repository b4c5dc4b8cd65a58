// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256InputStream.h"

#include "Foundation/QVFileHandle.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

QV_LOG_SOURCE("QVHandoff/QVHandoffAES256InputStream")

std::shared_ptr<QVHandoffAES256InputStream>
QVHandoffAES256InputStream::streamForFileAtPath(const std::string& path, const QVData& withKeyData) {
  return std::make_shared<QVHandoffAES256InputStream>(path, withKeyData);
}

QVHandoffAES256InputStream::QVHandoffAES256InputStream(const std::string& path, const QVData& keyData)
    : encryptor_(QVHandoffAES256Cryptor::encryptorWithKeyData(keyData)),
      fileHandle_(QVFileHandle::forReadingAtPath(path)) {
  const off_t end = fileHandle_ ? ::lseek(fileHandle_->fileDescriptor(), 0, SEEK_END) : -1;
  if (end < 0 || ::lseek(fileHandle_->fileDescriptor(), 0, SEEK_SET) != 0) {
    QV_LOG_ERROR("Couldn't open file handle at path {}", path);
    fileHandle_.reset();
    streamStatus_ = QVStreamStatus::Error;
    return;
  }
  endFileOffset_ = static_cast<uint64_t>(end);
}

QVHandoffAES256InputStream::~QVHandoffAES256InputStream() = default;

bool QVHandoffAES256InputStream::endOfFileReached() const {
  std::lock_guard lock(lock_);
  return endOfFileReachedLocked();
}

bool QVHandoffAES256InputStream::endOfFileReachedLocked() const {
  return !fileHandle_ || fileOffset_ == endFileOffset_;
}

bool QVHandoffAES256InputStream::hasBytesAvailable() const {
  std::lock_guard lock(lock_);
  return !endOfFileReachedLocked() || encryptedOffset_ < encryptedData_.size();
}

QVStreamStatus QVHandoffAES256InputStream::streamStatus() const {
  std::lock_guard lock(lock_);
  return hasBytesAvailable() ? streamStatus_ : QVStreamStatus::AtEnd;
}

void QVHandoffAES256InputStream::open() {
  std::lock_guard lock(lock_);
  if (streamStatus_ == QVStreamStatus::NotOpen) streamStatus_ = QVStreamStatus::Open;
}

void QVHandoffAES256InputStream::close() {
  std::lock_guard lock(lock_);
  if (fileHandle_) fileHandle_->close();
  fileHandle_.reset();
  progressHandler_ = nullptr;
  if (streamStatus_ != QVStreamStatus::Error) streamStatus_ = QVStreamStatus::Closed;
}

QVHandoffAES256InputStream::ProgressHandler QVHandoffAES256InputStream::progressHandler() const {
  std::lock_guard lock(lock_);
  return progressHandler_;
}

void QVHandoffAES256InputStream::setProgressHandler(ProgressHandler handler) {
  std::lock_guard lock(lock_);
  progressHandler_ = std::move(handler);
}

// The whole read holds the lock so that a close from the main thread never pulls the file from under it.
uint64_t QVHandoffAES256InputStream::read(uint8_t* buffer, uint64_t maxLength) {
  std::lock_guard lock(lock_);
  if (!hasBytesAvailable()) return 0;
  streamStatus_ = QVStreamStatus::Reading;
  const auto capacity = static_cast<size_t>(maxLength);
  // Cipher text made before goes first; the next slice is encrypted straight behind it into the reader's
  // buffer, and only what does not fit waits here.
  const size_t buffered = encryptedData_.size() - encryptedOffset_;
  size_t length = std::min(capacity, buffered);
  if (length > 0) std::memcpy(buffer, encryptedData_.data() + encryptedOffset_, length);
  encryptedOffset_ += length;
  if (encryptedOffset_ == encryptedData_.size()) {
    encryptedData_.clear();
    encryptedOffset_ = 0;
  }
  if (buffered < capacity && !endOfFileReachedLocked()) {
    const auto encrypted = encryptNextSlice(std::span<uint8_t>(buffer + length, capacity - length), capacity);
    if (!encrypted) return 0;
    length += *encrypted;
  }
  streamStatus_ = QVStreamStatus::Open;
  return length;
}

// One file read per call, sized by the reader: nothing waits here beyond a few blocks.
std::optional<size_t> QVHandoffAES256InputStream::encryptNextSlice(std::span<uint8_t> output,
                                                                   size_t maxLength) {
  const uint64_t remaining = endFileOffset_ - fileOffset_;
  // While everything read so far was whole blocks, the cipher holds nothing back: whole blocks are read
  // straight into the output and encrypted where they lie, leaving a block of room for the padding.
  // Otherwise (small outputs, a short read) the slice goes through a buffer of its own.
  size_t wanted = 0;
  uint8_t* target = output.data();
  constexpr size_t block = QVHandoffAES256Cryptor::kBlockSize;
  if (fileOffset_ % block == 0 && encryptedData_.empty() && output.size() > block)
    wanted = static_cast<size_t>(std::min<uint64_t>(remaining, (output.size() - block) / block * block));
  if (wanted == 0) {
    wanted = static_cast<size_t>(std::min<uint64_t>(maxLength, remaining));
    if (plainSlice_.size() < wanted) plainSlice_ = QVData(wanted);
    target = plainSlice_.data();
  }
  ssize_t count = -1;
  do {
    count = ::read(fileHandle_->fileDescriptor(), target, wanted);
  } while (count < 0 && errno == EINTR);
  // A file that shrank or cannot be read would never reach its recorded end: the body stops here.
  if (count <= 0) {
    QV_LOG_ERROR("Couldn't continue encryption");
    streamStatus_ = QVStreamStatus::Error;
    return std::nullopt;
  }
  fileOffset_ += static_cast<uint64_t>(count);

  auto encrypted = encryptor_ ? encryptor_->updateWithData(target, static_cast<size_t>(count), output,
                                                           encryptedData_)
                              : std::nullopt;
  if (!encrypted) {
    QV_LOG_ERROR("Couldn't continue encryption");
    streamStatus_ = QVStreamStatus::Error;
    return std::nullopt;
  }
  if (endOfFileReachedLocked()) {
    const auto lastBlock = encryptor_->finish(output.subspan(*encrypted), encryptedData_);
    if (!lastBlock) {
      QV_LOG_ERROR("Couldn't finish encryption");
      streamStatus_ = QVStreamStatus::Error;
      return std::nullopt;
    }
    *encrypted += *lastBlock;
  }
  postProgress();
  return encrypted;
}

void QVHandoffAES256InputStream::postProgress() {
  QVMainQueue::main().post([weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock()) self->notifyProgress();
  });
}

// On the main queue. The handler runs under the lock, so a close never races it.
void QVHandoffAES256InputStream::notifyProgress() {
  std::lock_guard lock(lock_);
  if (!progressHandler_ || !fileHandle_ || endFileOffset_ == 0 || streamStatus_ == QVStreamStatus::Error)
    return;
  if (streamStatus_ == QVStreamStatus::Closed) return;
  progressHandler_(static_cast<float>(fileOffset_) / static_cast<float>(endFileOffset_));
}
