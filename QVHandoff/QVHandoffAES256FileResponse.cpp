// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256FileResponse.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"
#include "QVHandoff/QVHandoffProtocol.h"

#include <fmt/format.h>

QV_LOG_SOURCE("QVHandoff/QVHandoffAES256FileResponse")

std::shared_ptr<QVHandoffAES256FileResponse> QVHandoffAES256FileResponse::initWithFilePath(
    const std::string& filePath, const std::optional<QVDate>& modificationDate, uint64_t fileSize,
    const std::shared_ptr<QVHTTPConnection>& forConnection, const QVData& withKeyData) {
  if (!modificationDate) return nullptr;
  auto response = std::make_shared<QVHandoffAES256FileResponse>(filePath, forConnection);
  if (!response->isValid()) return nullptr;
  response->encryptor_ = QVHandoffAES256Cryptor::encryptorWithKeyData(withKeyData);
  if (!response->encryptor_) return nullptr;
  response->setHttpHeaders({{QVHandoffLastModifiedHeader, QVFormatHTTPDate(*modificationDate)},
                            {QVHandoffDecodedContentLengthHeader, fmt::format("{}", fileSize)}});
  return response;
}

QVHandoffAES256FileResponse::QVHandoffAES256FileResponse(const std::string& filePath,
                                                         const std::shared_ptr<QVHTTPConnection>& connection)
    : QVHTTPAsyncFileResponse(filePath, connection) {}

QVHandoffAES256FileResponse::~QVHandoffAES256FileResponse() = default;

size_t QVHandoffAES256FileResponse::processReadBuffer(std::span<uint8_t> output) {
  // Encrypted straight into the outgoing buffer: the chunk is never copied once more on its way out.
  const auto encrypted =
      encryptor_->updateWithData(readBuffer_.data(), readBuffer_.size(), output, dataReady_);
  if (!encrypted) {
    QV_LOG_ERROR("Couldn't continue encryption");
    abort();
    return 0;
  }
  if (readOffset_ < fileLength_) return *encrypted;
  const auto lastBlock = encryptor_->finish(output.subspan(*encrypted), dataReady_);
  if (!lastBlock) {
    QV_LOG_ERROR("Couldn't finish encryption");
    abort();
    return 0;
  }
  encryptionFinished_ = true;
  return *encrypted + *lastBlock;
}
