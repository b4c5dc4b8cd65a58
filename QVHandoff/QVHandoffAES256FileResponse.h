// SPDX-License-Identifier: MIT
#pragma once
// A document sent to a peer encrypted on the fly: each chunk read from disk goes through a streaming
// AES-256 encryptor, so the file is never whole in memory nor written anywhere encrypted. The encrypted
// length is not announced (chunked body); the plaintext length travels in "X-Decoded-Content-Length".

#include "Foundation/QVTypes.h"
#include "Network/HTTPServer/QVHTTPAsyncFileResponse.h"

#include <memory>
#include <optional>
#include <string>

class QVHandoffAES256Cryptor;

class QVHandoffAES256FileResponse : public QVHTTPAsyncFileResponse {
public:
  // None without a modification date, or when the file cannot be opened or the encryptor not made.
  // `fileSize` is announced as given, not checked against the file.
  static std::shared_ptr<QVHandoffAES256FileResponse>
  initWithFilePath(const std::string& filePath, const std::optional<QVDate>& modificationDate,
                   uint64_t fileSize, const std::shared_ptr<QVHTTPConnection>& forConnection,
                   const QVData& withKeyData);

  QVHandoffAES256FileResponse(const std::string& filePath,
                              const std::shared_ptr<QVHTTPConnection>& connection);
  ~QVHandoffAES256FileResponse() override;

  bool isChunked() const override { return true; }
  uint64_t contentLength() const override { return 0; }
  // Only after the final block: the last chunk always carries the padding.
  bool isDone() const override { return encryptionFinished_; }

protected:
  size_t processReadBuffer(std::span<uint8_t> output) override;

private:
  std::unique_ptr<QVHandoffAES256Cryptor> encryptor_;
  bool encryptionFinished_ = false;
};
