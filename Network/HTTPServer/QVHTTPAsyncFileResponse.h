// SPDX-License-Identifier: MIT
#pragma once
// A response that streams a file: each pull reads the next chunk from disk and hands it through
// processReadBuffer(), which a subclass overrides to transform it (encrypt it) on its way into the buffer
// that goes out. The server pulls it on a thread of its own, a chunk or two ahead of the connection's thread
// that sends, so a slow disk delays only this transfer and reading and encrypting overlap sending. Ranges
// are not supported: the file is always sent whole.

#include "Foundation/QVTypes.h"
#include "Network/HTTPServer/QVHTTPResponse.h"

#include <memory>
#include <span>
#include <string>

class QVHTTPConnection;

class QVHTTPAsyncFileResponse : public QVHTTPResponse {
public:
  // Check isValid(): a file that cannot be opened gives an invalid response.
  QVHTTPAsyncFileResponse(const std::string& filePath, const std::shared_ptr<QVHTTPConnection>& connection);
  ~QVHTTPAsyncFileResponse() override;

  bool isValid() const { return fd_ >= 0; }
  uint64_t contentLength() const override { return fileLength_; }
  std::optional<size_t> readData(uint8_t* buffer, size_t capacity) final;
  bool producesAhead() const override { return true; }

  // Whether the whole body has been produced (and sent once nothing is pending).
  virtual bool isDone() const { return readOffset_ >= fileLength_; }

protected:
  // Called after each chunk has been read into readBuffer_: puts what goes out into `output` and returns how
  // many bytes that is; what does not fit waits in dataReady_. The default sends the chunk as it is.
  virtual size_t processReadBuffer(std::span<uint8_t> output);
  // Ends the body with an error: the connection is dropped.
  void abort();

  std::span<const uint8_t> readBuffer_; // the chunk just read
  QVData dataReady_;                    // what goes out before the next chunk is read
  uint64_t readOffset_ = 0;             // bytes of the file read so far
  uint64_t fileLength_ = 0;
  std::weak_ptr<QVHTTPConnection> connection_;

private:
  bool readNextChunk(size_t capacity);

  int fd_ = -1;
  // Kept from chunk to chunk: one allocation for the whole file, never cleared byte by byte.
  std::unique_ptr<uint8_t[]> readStorage_;
  size_t readStorageSize_ = 0;
  size_t dataReadyOffset_ = 0;
  bool aborted_ = false;
};
