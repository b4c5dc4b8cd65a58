// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffHTTPConnection.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVPrivateTemporaryFile.h"
#include "Foundation/QVUUID.h"
#include "Network/HTTPServer/QVHTTPDataResponse.h"
#include "Network/HTTPServer/QVHTTPErrorResponse.h"
#include "QVHandoff/QVHandoffAES256FileResponse.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffHTTPServer.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffProtocol.h"
#include "QVHandoff/QVHandoffRequestValues.h"
#include "QVHandoff/QVHandoffSaveBackReceiver.h"
#include "QVHandoff/QVHandoffServerContext.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

QV_LOG_SOURCE("QVHandoff/QVHandoffHTTPConnection")

namespace {

using QVHandoffRequestValues::contentTypeForPath;
using QVHandoffRequestValues::forceRemoteSaveBackFilePathFromData;
using QVHandoffRequestValues::markAsModifiedRequestFromData;
using QVHandoffRequestValues::stringValue;

} // namespace

QVHandoffHTTPConnection::QVHandoffHTTPConnection(QVHandoffHTTPServer& server)
    : QVHTTPConnection(server), handoffServer_(server) {}

QVHandoffHTTPConnection::~QVHandoffHTTPConnection() {
  saveBackReceiver_.reset();
  if (!tempFilePath_.empty()) QVRemoveItem(tempFilePath_);
}

// MARK: Codec

std::optional<QVData> QVHandoffHTTPConnection::dataFromJSONObject(const nlohmann::json& object,
                                                                  const QVData& encryptedWithAES256Key) {
  return QVHandoffMessageCodec::dataFromJSONObject(object, encryptedWithAES256Key);
}

std::optional<nlohmann::json>
QVHandoffHTTPConnection::JSONObjectFromData(const QVData& data, const QVData& encryptedWithAES256Key) {
  return QVHandoffMessageCodec::JSONObjectFromData(data, encryptedWithAES256Key);
}

bool QVHandoffHTTPConnection::isSuccessResponseData(const QVData& data,
                                                    const QVData& encryptedWithAES256Key) {
  return QVHandoffMessageCodec::isSuccessResponseData(data, encryptedWithAES256Key);
}

std::optional<QVData>
QVHandoffHTTPConnection::AES256EncryptedDataWithJSONObject(const nlohmann::json& object) const {
  return dataFromJSONObject(object, handoffServer_.AES256Key());
}

std::optional<nlohmann::json>
QVHandoffHTTPConnection::JSONObjectWithAES256EncryptedData(const QVData& data) const {
  return JSONObjectFromData(data, handoffServer_.AES256Key());
}

// MARK: Common answers

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::serverInternalErrorResponse() {
  return std::make_shared<QVHTTPErrorResponse>(500);
}

std::optional<std::string> QVHandoffHTTPConnection::tempFilePath() {
  const auto folder = QVPrivateTemporaryDirectory();
  if (!folder) return std::nullopt;
  return (std::filesystem::path(*folder) / QVUUIDString()).string();
}

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::successResponse() const {
  auto data = AES256EncryptedDataWithJSONObject(QVHandoffMessageCodec::successMessage());
  if (!data) {
    QV_LOG_ERROR("Couldn't encrypt success response data");
    return std::make_shared<QVHTTPDataResponse>(QVData());
  }
  return std::make_shared<QVHTTPDataResponse>(std::move(*data));
}

std::shared_ptr<QVHandoffServerContext> QVHandoffHTTPConnection::context() const {
  auto context = handoffServer_.context();
  if (!context) QV_LOG_ERROR("Couldn't serve {} without its manager", requestURI());
  return context;
}

void QVHandoffHTTPConnection::performOnMainThread(std::function<void(QVHandoffServerContext&)> task) {
  // The context is taken and let go of on the main thread, where the manager may end.
  performOnMainThreadSynchronouslyUnlessReleased(
      [weak = handoffServer_.weakContext(), task = std::move(task)] {
        if (const auto context = weak.lock()) task(*context);
      },
      serverStopped());
}

void QVHandoffHTTPConnection::postOnMainThread(const char* name, QVUserInfo userInfo) {
  performOnMainThread([name, userInfo = std::move(userInfo)](QVHandoffServerContext& context) {
    context.postNotification(name, userInfo);
  });
}

void QVHandoffHTTPConnection::replaceTempFilePath(std::string path) {
  if (!tempFilePath_.empty()) QVRemoveItem(tempFilePath_);
  tempFilePath_ = std::move(path);
}

// MARK: Routing

// Exact paths for the JSON endpoints, query string included, so they must come without one; save back
// carries its parameters in the query string and is matched by prefix.
QVHandoffHTTPConnection::Route QVHandoffHTTPConnection::routeForRequest(const std::string& method,
                                                                        const std::string& uri) {
  if (method != "POST") return Route::None;
  if (uri == QVHandoffTabsListRequestPath) return Route::TabsList;
  if (uri == QVHandoffHandoffDocumentRequestPath) return Route::Handoff;
  if (uri == QVHandoffMarkAsModifiedFileRequestPath) return Route::MarkAsModified;
  if (uri == QVHandoffForceRemoteSaveBackFileRequestPath) return Route::ForceRemoteSaveBack;
  if (uri.starts_with(QVHandoffSaveBackRequestPath)) return Route::SaveBack;
  return Route::None;
}

bool QVHandoffHTTPConnection::supportsMethod(const std::string& method, const std::string& path) {
  if (routeForRequest(method, path) != Route::None) return true;
  return QVHTTPConnection::supportsMethod(method, path);
}

bool QVHandoffHTTPConnection::expectsRequestBodyFromMethod(const std::string& method,
                                                           const std::string& path) {
  const Route route = routeForRequest(method, path);
  if (route != Route::None && route != Route::TabsList) return true;
  return QVHTTPConnection::expectsRequestBodyFromMethod(method, path);
}

void QVHandoffHTTPConnection::prepareForBodyWithSize(uint64_t contentLength) {
  route_ = routeForRequest(requestMethod(), requestURI());
  bodyLength_ = 0;
  if (route_ == Route::SaveBack) {
    prepareForSaveBack();
    return;
  }
  requestBody_.clear();
  if (contentLength != kUnknownContentLength && contentLength > kMaxRequestBodyLength) {
    QV_LOG_ERROR("Request body of {} bytes for {} exceeds {} bytes", contentLength, requestURI(),
                 kMaxRequestBodyLength);
    disconnect();
  }
}

void QVHandoffHTTPConnection::processBodyData(const uint8_t* bytes, size_t length) {
  if (route_ == Route::SaveBack) {
    processSaveBackData(bytes, length);
    return;
  }
  // Bodies that are dropped count too: a peer may not keep a connection busy with one forever.
  bodyLength_ += length;
  if (bodyLength_ > kMaxRequestBodyLength) {
    QV_LOG_ERROR("Request body for {} exceeds {} bytes", requestURI(), kMaxRequestBodyLength);
    disconnect();
    return;
  }
  if (route_ == Route::Handoff || route_ == Route::MarkAsModified || route_ == Route::ForceRemoteSaveBack) {
    requestBody_.insert(requestBody_.end(), bytes, bytes + length);
  }
}

void QVHandoffHTTPConnection::finishBody() {
  if (route_ == Route::SaveBack) finishSaveBack();
}

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::httpResponseForMethod(const std::string& method,
                                                                               const std::string& uri) {
  contentType_.clear(); // a kept-alive connection must not answer JSON with the last document's type
  switch (routeForRequest(method, uri)) {
  case Route::TabsList:
    return tabsListResponse();
  case Route::Handoff:
    return handoffDocumentResponse();
  case Route::MarkAsModified:
    return markAsModifiedFileResponse();
  case Route::ForceRemoteSaveBack:
    return forceRemoteSaveBackFileResponse();
  case Route::SaveBack:
    return saveBackFileResponse();
  case Route::None:
    break;
  }
  return QVHTTPConnection::httpResponseForMethod(method, uri);
}

void QVHandoffHTTPConnection::preprocessResponse(QVHTTPHeaders& headers) {
  headers[QVHandoffContentEncodingHeader] = QVHandoffAES256ContentEncoding;
  headers[QVHandoffContentTypeHeader] = contentType_.empty() ? QVHandoffJSONContentType : contentType_;
  QVHTTPConnection::preprocessResponse(headers);
}

void QVHandoffHTTPConnection::die() {
  if (saveBackReceiver_) saveBackReceiver_->connectionDidDie();
  QVHTTPConnection::die();
}

// MARK: Tabs list

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::tabsListResponse() {
  nlohmann::json tabs = nlohmann::json::array();
  const auto dateFormatter = QVHandoffHTTPConnection::dateFormatter();
  const auto context = this->context();
  if (!context) return serverInternalErrorResponse();
  const auto documentsInfo = context->localDocumentsInfo();
  for (const auto& documentInfo : *documentsInfo) {
    const std::string& filePath = documentInfo->filePath();
    if (filePath.empty()) {
      QV_LOG_ERROR("File path is undefined");
      return serverInternalErrorResponse();
    }
    nlohmann::json tab = {{"filePath", filePath}};
    QVError error;
    const auto attributes = QVAttributesOfItem(filePath, &error);
    if (!attributes) {
      QV_LOG_ERROR("Couldn't get file attributes due {}", error.description());
      return serverInternalErrorResponse();
    }
    documentInfo->setFileSize(attributes->fileSize);
    tab["fileSize"] = documentInfo->fileSize();
    const auto modificationDate = QVHandoffManager::latestFileModificationDateForFileAtPath(filePath);
    if (!modificationDate) {
      QV_LOG_ERROR("Couldn't get file modification date");
      return serverInternalErrorResponse();
    }
    documentInfo->setFileModificationDate(modificationDate);
    tab["fileModificationDate"] = dateFormatter.stringFromDate(*documentInfo->fileModificationDate());
    if (documentInfo->contentType().empty()) {
      if (std::filesystem::path(filePath).extension().empty()) {
        QV_LOG_ERROR("File extension is empty and no content type specified!");
      } else {
        documentInfo->setContentType(contentTypeForPath(filePath));
      }
    }
    if (!documentInfo->contentType().empty()) tab["contentType"] = documentInfo->contentType();
    // Page 0 means no position is known, and then none is sent.
    if (documentInfo->pageNumber() != 0) {
      tab[QVHandoffTabsListPageNumberKey] = documentInfo->pageNumber();
      tab["pdfPointX"] = documentInfo->pdfPoint().x;
      tab["pdfPointY"] = documentInfo->pdfPoint().y;
    }
    if (!documentInfo->iCloudPath().empty()) tab["iCloudPath"] = documentInfo->iCloudPath();
    if (!documentInfo->dropboxPath().empty()) tab["dropboxPath"] = documentInfo->dropboxPath();
    const auto position = std::find(documentsInfo->begin(), documentsInfo->end(), documentInfo);
    const auto index = static_cast<uint64_t>(position - documentsInfo->begin());
    tab["active"] = index == context->currentLocalDocumentIndex() ? 1 : 0;
    tabs.push_back(std::move(tab));
  }
  auto data = AES256EncryptedDataWithJSONObject(tabs);
  if (!data) {
    QV_LOG_ERROR("Couldn't encrypt tabs list response data");
    return serverInternalErrorResponse();
  }
  return std::make_shared<QVHTTPDataResponse>(std::move(*data));
}

// MARK: Handoff

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::handoffDocumentResponse() {
  const auto object = JSONObjectWithAES256EncryptedData(requestBody_);
  if (!object) {
    QV_LOG_ERROR("Couldn't decrypt handoff document request body");
    return serverInternalErrorResponse();
  }
  const auto filePath = stringValue(*object, "filePath");
  if (!filePath) {
    QV_LOG_ERROR("Handoff document file path not found in request");
    return serverInternalErrorResponse();
  }
  if (filePath->find('\0') != std::string::npos) {
    QV_LOG_ERROR("Handoff document file path contains a NUL byte");
    return serverInternalErrorResponse();
  }
  // A FIFO or a device would hold the copy, or never end it; a path that is missing is left to the host's
  // copy, which may know it.
  std::error_code statusError;
  const auto status = std::filesystem::status(*filePath, statusError);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    QV_LOG_ERROR("Handoff document is not a regular file: {}", *filePath);
    return serverInternalErrorResponse();
  }
  const auto context = this->context();
  if (!context) return serverInternalErrorResponse();
  // The host may go on saving the document while a private copy streams; no one else may read it meanwhile.
  auto copyPath = tempFilePath();
  if (!copyPath) {
    QV_LOG_ERROR("Couldn't make the private temporary folder on handoff document operation");
    return serverInternalErrorResponse();
  }
  replaceTempFilePath(std::move(*copyPath));
  QVError error;
  if (!context->copyHandoffDocumentAtPath(*filePath, tempFilePath_, &error)) {
    QV_LOG_ERROR("Couldn't copy file on handoff document operation. Error: {}", error.description());
    return serverInternalErrorResponse();
  }
  const auto attributes = context->attributesOfHandoffDocumentAtPath(*filePath, &error);
  if (!attributes) {
    QV_LOG_ERROR("Couldn't get file file attributes on handoff document operation. Error: {}",
                 error.description());
    return serverInternalErrorResponse();
  }
  contentType_ = contentTypeForPath(*filePath);
  const auto response = QVHandoffAES256FileResponse::initWithFilePath(
      tempFilePath_, QVHandoffManager::latestFileModificationDateForFileAtPath(*filePath),
      attributes->fileSize, shared_from_this(), handoffServer_.AES256Key());
  // Without one the server answers as for a missing resource.
  return response;
}

// MARK: Save back

void QVHandoffHTTPConnection::prepareForSaveBack() {
  const auto serverContext = context();
  if (!serverContext) {
    disconnect();
    return;
  }
  QVHandoffSaveBackReceiver::Context receiverContext;
  receiverContext.AES256Key = handoffServer_.AES256Key();
  receiverContext.moveFileBlock = serverContext->moveFileBlock();
  receiverContext.postNotification = [this](const char* name, QVUserInfo userInfo) {
    postOnMainThread(name, std::move(userInfo));
  };
  receiverContext.postDidFailNotification = [this](const std::string& path) {
    performOnMainThread([path](QVHandoffServerContext& context) {
      context.postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(path);
    });
  };
  receiverContext.didSaveBack = [this](const std::string& path) {
    performOnMainThread([path](QVHandoffServerContext& context) {
      if (auto documentInfo = context.localDocumentInfoForFilePath(path))
        context.setRemoteMarks(*documentInfo, {}, {});
    });
  };
  // A kept-alive connection's earlier upload is forgotten with its receiver.
  saveBackReceiver_ = std::make_unique<QVHandoffSaveBackReceiver>(std::move(receiverContext));
  if (!saveBackReceiver_->prepareForSaveBack(parseGetParams())) disconnect();
}

void QVHandoffHTTPConnection::processSaveBackData(const uint8_t* bytes, size_t length) {
  if (!saveBackReceiver_ || !saveBackReceiver_->processSaveBackData(bytes, length)) disconnect();
}

void QVHandoffHTTPConnection::finishSaveBack() {
  if (!saveBackReceiver_ || !saveBackReceiver_->finishSaveBack()) disconnect();
}

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::saveBackFileResponse() {
  const std::string saveBackFilePath = saveBackReceiver_ ? saveBackReceiver_->saveBackFilePath() : "";
  QVError error;
  const auto attributes = QVAttributesOfItem(saveBackFilePath, &error);
  if (!attributes) {
    QV_LOG_ERROR("Couldn't get file attributes due {}", error.description());
    return serverInternalErrorResponse();
  }
  // The plain file system date, not the overridden one.
  const nlohmann::json object = {
      {"filePath", saveBackFilePath},
      {"fileSize", attributes->fileSize},
      {"fileModificationDate", dateFormatter().stringFromDate(attributes->fileModificationDate)}};
  auto data = AES256EncryptedDataWithJSONObject(object);
  if (!data) {
    QV_LOG_ERROR("Couldn't encrypt save back file response data");
    return serverInternalErrorResponse();
  }
  return std::make_shared<QVHTTPDataResponse>(std::move(*data));
}

// MARK: Mark as modified and force remote save back

void QVHandoffHTTPConnection::setRemoteMarks(std::shared_ptr<QVHandoffDocumentInfo> documentInfo,
                                             std::string remoteDeviceName, std::string remoteFilePath) {
  // On the main thread, where the host reads the record, and before the notifications that follow.
  performOnMainThread([documentInfo = std::move(documentInfo), remoteDeviceName = std::move(remoteDeviceName),
                       remoteFilePath = std::move(remoteFilePath)](QVHandoffServerContext& context) {
    context.setRemoteMarks(*documentInfo, remoteDeviceName, remoteFilePath);
  });
}

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::markAsModifiedFileResponse() {
  const auto request = markAsModifiedRequestFromData(requestBody_, handoffServer_.AES256Key());
  if (!request) return serverInternalErrorResponse();
  const auto context = this->context();
  if (!context) return serverInternalErrorResponse();
  if (auto documentInfo = context->localDocumentInfoForFilePath(request->filePath)) {
    setRemoteMarks(documentInfo, request->remoteDeviceName, request->remoteFilePath);
    QVUserInfo userInfo = {{QVHandoffManagerFilePathKey, request->filePath},
                           {QVHandoffManagerDeviceNameKey, request->remoteDeviceName},
                           {QVHandoffManagerDeviceTypeKey, request->remoteDeviceType}};
    if (request->remoteFileModificationDate)
      userInfo[QVHandoffManagerFileModificationDateKey] = *request->remoteFileModificationDate;
    postOnMainThread(QVHandoffManagerDidMarkLocalFileAsModifiedNotification, std::move(userInfo));
  }
  return successResponse();
}

std::shared_ptr<QVHTTPResponse> QVHandoffHTTPConnection::forceRemoteSaveBackFileResponse() {
  const auto filePath = forceRemoteSaveBackFilePathFromData(requestBody_, handoffServer_.AES256Key());
  if (!filePath) return serverInternalErrorResponse();
  postOnMainThread(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification,
                   {{QVHandoffManagerFilePathKey, *filePath}});
  return successResponse();
}
