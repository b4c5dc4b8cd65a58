// SPDX-License-Identifier: MIT
#pragma once
// An upload body pulled by the HTTP client: a local file read slice by slice and handed out as AES-256
// ciphertext, so that a document is never encrypted whole in memory. Progress is measured in plain bytes
// read from the file and reported on the main queue.

#include "Foundation/QVTypes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

class QVFileHandle;
class QVHandoffAES256Cryptor;

// The usual byte-stream states; this stream stores NotOpen, Open, Reading, Closed and Error, and reports
// AtEnd once nothing is left to hand out.
enum class QVStreamStatus : uint64_t {
  NotOpen = 0,
  Opening = 1,
  Open = 2,
  Reading = 3,
  Writing = 4,
  AtEnd = 5,
  Closed = 6,
  Error = 7,
};

class QVHandoffAES256InputStream : public std::enable_shared_from_this<QVHandoffAES256InputStream> {
public:
  using ProgressHandler = std::function<void(float progress)>;

  static std::shared_ptr<QVHandoffAES256InputStream> streamForFileAtPath(const std::string& path,
                                                                         const QVData& withKeyData);
  // A file that cannot be opened gives a stream with nothing to read (status Error, reported as AtEnd).
  QVHandoffAES256InputStream(const std::string& path, const QVData& keyData);
  ~QVHandoffAES256InputStream();
  QVHandoffAES256InputStream(const QVHandoffAES256InputStream&) = delete;
  QVHandoffAES256InputStream& operator=(const QVHandoffAES256InputStream&) = delete;

  // Up to `maxLength` bytes of ciphertext; 0 when nothing is left, and also after a failure (status Error):
  // the reader takes either as the end of the body. One reader at a time.
  uint64_t read(uint8_t* buffer, uint64_t maxLength);
  bool endOfFileReached() const;
  bool hasBytesAvailable() const;
  QVStreamStatus streamStatus() const;
  void open();
  void close();

  ProgressHandler progressHandler() const;
  void setProgressHandler(ProgressHandler handler);

private:
  bool endOfFileReachedLocked() const;
  // Reads up to maxLength plain bytes and puts their cipher text into `output`, the rest into encryptedData_;
  // how much went to `output`, or none (with the status set to Error) when reading or the encryptor fails.
  std::optional<size_t> encryptNextSlice(std::span<uint8_t> output, size_t maxLength);
  void postProgress();
  void notifyProgress();

  std::unique_ptr<QVHandoffAES256Cryptor> encryptor_;
  std::shared_ptr<QVFileHandle> fileHandle_;
  QVStreamStatus streamStatus_ = QVStreamStatus::NotOpen;
  // Ciphertext made but not yet handed out, from encryptedOffset_ on.
  QVData encryptedData_;
  // The slice read from the file, kept for the next one.
  QVData plainSlice_;
  size_t encryptedOffset_ = 0;
  uint64_t fileOffset_ = 0;
  uint64_t endFileOffset_ = 0;
  ProgressHandler progressHandler_;
  // The reader's thread and the main thread (progress, close) meet here.
  mutable std::recursive_mutex lock_;
};
