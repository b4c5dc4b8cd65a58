#include "QVHandoff/QVHandoffAES256FileResponse.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"

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
  response->setHttpHeaders({{"Last-Modified", QVFormatHTTPDate(*modificationDate)},
                            {"X-Decoded-Content-Length", fmt::format("{}", fileSize)}});
  return response;
}

QVHandoffAES256FileResponse::QVHandoffAES256FileResponse(const std::string& filePath,
                                                         const std::shared_ptr<QVHTTPConnection>& connection)
    : QVHTTPAsyncFileResponse(filePath, connection) {}

QVHandoffAES256FileResponse::~QVHandoffAES256FileResponse() = default;

void QVHandoffAES256FileResponse::processReadBuffer() {
  auto encrypted = encryptor_->updateWithData(readBuffer_);
  readBuffer_.clear();
  if (!encrypted) {
    QV_LOG_ERROR("Couldn't continue encryption");
    abort();
    return;
  }
  dataReady_ = std::move(*encrypted);
  if (readOffset_ < fileLength_) return;
  auto lastBlock = encryptor_->finish();
  if (!lastBlock) {
    QV_LOG_ERROR("Couldn't finish encryption");
    abort();
    return;
  }
  dataReady_.insert(dataReady_.end(), lastBlock->begin(), lastBlock->end());
  encryptionFinished_ = true;
}
