// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffUpload.h"

#include "Foundation/QVLog.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "QVHandoff/QVHandoffAES256InputStream.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffRequests.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

QV_LOG_SOURCE_OF("QVHandoff/QVHandoffManager", "QVHandoffManager")

using namespace QVHandoffRequests;

namespace {

// A whole, non-negative number; floating-point and negative values are a peer's mistake, not a size.
std::optional<uint64_t> unsignedValue(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_integer()) return std::nullopt;
  if (found->is_number_unsigned()) return found->get<uint64_t>();
  const int64_t value = found->get<int64_t>();
  return value < 0 ? std::nullopt : std::optional<uint64_t>(static_cast<uint64_t>(value));
}

std::optional<std::string> stringValue(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

} // namespace

QVHandoffUpload::QVHandoffUpload() = default;
QVHandoffUpload::~QVHandoffUpload() = default;

std::string QVHandoffUpload::saveBackURL(const QVHandoffServerInfo& serverInfo,
                                         const QVHandoffDocumentInfo& documentInfo) {
  return fmt::format(
      "{}{}?{}={}&{}={}&{}={}&{}={}&{}={}", serverInfo.HTTPAddress(), QVHandoffSaveBackRequestPath,
      QVHandoffSaveBackPathQueryKey, percentEncodedQueryValue(documentInfo.filePath()),
      QVHandoffSaveBackSizeQueryKey, documentInfo.fileSize(), QVHandoffSaveBackModificationDateQueryKey,
      percentEncodedQueryValue(dateText(documentInfo.fileModificationDate())),
      QVHandoffSaveBackPageNumberQueryKey, documentInfo.pageNumber(), QVHandoffSaveBackPDFPointQueryKey,
      percentEncodedQueryValue(pointText(documentInfo.pdfPoint())));
}

void QVHandoffUpload::start(QVHTTPSessionManager& session, const std::string& URL, const QVData& key,
                            const std::optional<std::string>& contentType,
                            QVURLSessionDataTask::Completion completion) {
  stream_ = QVHandoffAES256InputStream::streamForFileAtPath(tempFilePath(), key);
  stream_->setProgressHandler([weakUpload = weak_from_this()](float progress) {
    if (const auto upload = weakUpload.lock()) upload->handleFileTransferProgress(progress);
  });
  stream_->open();

  QVURLRequest request(URL, "POST");
  request.setHTTPBodyStream([stream = stream_](uint8_t* buffer, size_t capacity) {
    return static_cast<size_t>(stream->read(buffer, capacity));
  });
  QVHandoffManager::setContentType(contentType, request);
  const auto task = session.dataTaskWithRequest(request, std::move(completion));
  setFileTransferHTTPOperation(task);
  task->resume();
}

void QVHandoffUpload::closeStream() {
  if (stream_) stream_->close();
}

bool QVHandoffUpload::takeAnswer(const QVData& body, const QVHandoffServerInfo& serverInfo,
                                 QVHandoffDocumentInfo& documentInfo) {
  const auto object = serverInfo.JSONObjectWithAES256EncryptedData(body);
  if (!object || !object->is_object()) {
    QV_LOG_ERROR("Couldn't decrypt save back file response data");
    return false;
  }
  // Checked whole before the record changes: a half-taken answer would re-tag the copy wrongly.
  const auto filePath = stringValue(*object, "filePath");
  const auto fileSize = unsignedValue(*object, "fileSize");
  const auto dateText = stringValue(*object, "fileModificationDate");
  const auto date =
      dateText ? QVHandoffMessageCodec::dateFormatter().dateFromString(*dateText) : std::nullopt;
  if (!filePath || filePath->empty() || !fileSize || !date) {
    QV_LOG_ERROR("Couldn't decrypt save back file response data");
    return false;
  }
  documentInfo.setFilePath(*filePath);
  documentInfo.setFileSize(*fileSize);
  documentInfo.setFileModificationDate(date);
  return true;
}
