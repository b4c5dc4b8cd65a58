// SPDX-License-Identifier: MIT
#pragma once
// One save back upload: a private copy of the edited document in the temporary folder, the stream that
// encrypts it as the client pulls it, and the request that carries it to the origin.

#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffTransfer.h"

#include <memory>
#include <optional>
#include <string>

class QVHandoffAES256InputStream;
class QVHandoffDocumentInfo;
class QVHandoffServerInfo;
class QVHTTPSessionManager;

class QVHandoffUpload : public QVHandoffTransfer {
public:
  QVHandoffUpload();
  ~QVHandoffUpload() override;

  // The origin's save back address with the path, size and date of the version that was handed off, which
  // the origin compares with its own, and where the user was in it.
  static std::string saveBackURL(const QVHandoffServerInfo& serverInfo,
                                 const QVHandoffDocumentInfo& documentInfo);

  // Streams the private copy (tempFilePath) to `URL`, encrypted with the origin's key.
  void start(QVHTTPSessionManager& session, const std::string& URL, const QVData& key,
             const std::optional<std::string>& contentType, QVURLSessionDataTask::Completion completion);
  // No progress after the end, and the copy's handle goes now rather than with the task.
  void closeStream();
  // Takes the origin's answer (where the copy went, its size and date) onto the record; false (logged) when
  // it cannot be read.
  static bool takeAnswer(const QVData& body, const QVHandoffServerInfo& serverInfo,
                         QVHandoffDocumentInfo& documentInfo);

private:
  // Set on the main thread before the request starts; the stream locks itself.
  std::shared_ptr<QVHandoffAES256InputStream> stream_;
};
