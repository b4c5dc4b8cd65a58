// SPDX-License-Identifier: MIT
#pragma once
// One peer's connection to the local server: accepts the five "POST" endpoints, collects or decrypts
// their bodies, answers them, puts the encryption headers on every answer, and cleans up its temporary
// file and any unfinished upload when it goes away. Every endpoint failure is a 500 with an empty body;
// a failure while an upload streams in drops the connection instead.
//
// Also the home of the encrypted message codec's class operations (they forward to
// QVHandoffMessageCodec, which the client side uses directly).

#include "Foundation/QVTypes.h"
#include "Network/HTTPServer/QVHTTPConnection.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class QVHandoffDocumentInfo;
class QVHandoffHTTPServer;
class QVHandoffSaveBackReceiver;
class QVHandoffServerContext;

class QVHandoffHTTPConnection : public QVHTTPConnection {
public:
  // JSON request bodies larger than this drop the connection; they are never buffered.
  static constexpr size_t kMaxRequestBodyLength = 1024 * 1024;

  explicit QVHandoffHTTPConnection(QVHandoffHTTPServer& server);
  ~QVHandoffHTTPConnection() override;

  // The encrypted message codec.
  static std::optional<QVData> dataFromJSONObject(const nlohmann::json& object,
                                                  const QVData& encryptedWithAES256Key);
  static std::optional<nlohmann::json> JSONObjectFromData(const QVData& data,
                                                          const QVData& encryptedWithAES256Key);
  static bool isSuccessResponseData(const QVData& data, const QVData& encryptedWithAES256Key);
  static QVHandoffDateFormatter dateFormatter() { return QVHandoffMessageCodec::dateFormatter(); }
  static QVHandoffNumberFormatter numberFormatter() { return QVHandoffMessageCodec::numberFormatter(); }
  // The same with the key of this connection's server, read afresh.
  std::optional<QVData> AES256EncryptedDataWithJSONObject(const nlohmann::json& object) const;
  std::optional<nlohmann::json> JSONObjectWithAES256EncryptedData(const QVData& data) const;

  // The one error answer of the API: 500, empty body.
  static std::shared_ptr<QVHTTPResponse> serverInternalErrorResponse();
  // A fresh path in the private temporary folder, named by a new UUID; none without that folder.
  static std::optional<std::string> tempFilePath();
  // 200 with the encrypted [true] (an empty body if that cannot be encrypted).
  std::shared_ptr<QVHTTPResponse> successResponse() const;

  QVHandoffHTTPServer& handoffServer() const { return handoffServer_; }

  // Routing.
  bool supportsMethod(const std::string& method, const std::string& path) override;
  bool expectsRequestBodyFromMethod(const std::string& method, const std::string& path) override;
  void prepareForBodyWithSize(uint64_t contentLength) override;
  void processBodyData(const uint8_t* bytes, size_t length) override;
  void finishBody() override;
  std::shared_ptr<QVHTTPResponse> httpResponseForMethod(const std::string& method,
                                                        const std::string& uri) override;
  void preprocessResponse(QVHTTPHeaders& headers) override;
  void die() override;

protected:
  // The endpoints.
  std::shared_ptr<QVHTTPResponse> tabsListResponse();
  std::shared_ptr<QVHTTPResponse> handoffDocumentResponse();
  std::shared_ptr<QVHTTPResponse> saveBackFileResponse();
  std::shared_ptr<QVHTTPResponse> markAsModifiedFileResponse();
  std::shared_ptr<QVHTTPResponse> forceRemoteSaveBackFileResponse();

  // The owning manager's side, or none (logged) once it is gone.
  std::shared_ptr<QVHandoffServerContext> context() const;
  // Runs `task` on the main thread while this connection waits, unless the server stops meanwhile: then
  // it runs there later, in order, and this connection goes on.
  void performOnMainThread(std::function<void(QVHandoffServerContext&)> task);
  void postOnMainThread(const char* name, QVUserInfo userInfo);
  void setRemoteMarks(std::shared_ptr<QVHandoffDocumentInfo> documentInfo, std::string remoteDeviceName,
                      std::string remoteFilePath);

private:
  enum class Route { None, TabsList, Handoff, MarkAsModified, ForceRemoteSaveBack, SaveBack };
  static Route routeForRequest(const std::string& method, const std::string& uri);

  void prepareForSaveBack();
  void processSaveBackData(const uint8_t* bytes, size_t length);
  void finishSaveBack();
  // Removes the previous temporary file: a kept-alive connection may serve several requests.
  void replaceTempFilePath(std::string path);

  QVHandoffHTTPServer& handoffServer_;
  Route route_ = Route::None;
  uint64_t bodyLength_ = 0;

  QVData requestBody_;
  std::unique_ptr<QVHandoffSaveBackReceiver> saveBackReceiver_;
  std::string tempFilePath_;
  std::string contentType_;
};
