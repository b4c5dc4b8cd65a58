// SPDX-License-Identifier: MIT
#pragma once
// One handoff download: the request to the peer, the decryptor of its body, the batch of decrypted bytes on
// their way to the file, and the file it writes beside its target path under a name of its own, moved to
// the target only whole and tagged. Chunks reach the download itself, never its record, so a record that
// starts another download meanwhile gets nothing of this one.

#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffTransfer.h"

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

class QVHandoffAES256Cryptor;
class QVHandoffDocumentInfo;
class QVHTTPSessionManager;
class QVHTTPURLResponse;

class QVHandoffDownload : public QVHandoffTransfer {
public:
  // Of the document `documentInfo` describes.
  explicit QVHandoffDownload(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  ~QVHandoffDownload() override;

  // Creates the private partial file in the folder of `targetPath` (its temporary file, removed by every
  // teardown), takes the session's one data slot (an older download still running gets no more chunks and
  // ends incomplete) and starts the request, decrypting with the peer's `key`.
  void start(QVHTTPSessionManager& session, const QVURLRequest& request, const QVData& key,
             const std::string& targetPath, QVURLSessionDataTask::Completion completion);
  // One piece of the encrypted body, on the session's thread. `announcedLength` is the decoded length the
  // response head announced: a body that decrypts to more is cut at once, one announcing none too.
  void receive(std::span<const uint8_t> piece, std::optional<uint64_t> announcedLength);
  // On the main thread once the body has ended without a transport error: writes the last bytes and takes
  // the announced date and size onto the record. False (logged) when something is missing or the copy is
  // not whole.
  bool finish(const QVHTTPURLResponse* response, QVHandoffDocumentInfo& documentInfo);
  // Renames the finished partial file to a free name made from `targetPath`; that path, or none (logged).
  std::optional<std::string> moveIntoPlace(const std::string& targetPath);

private:
  // Writes the batch's whole pages once it is full, or all of it at the end; under dataLock_.
  void handOnBatch(uint64_t fileSize, bool all);

  const std::weak_ptr<QVHandoffDocumentInfo> documentInfo_;
  // The session's thread decrypts, the main thread finishes: never at once, but both under this lock.
  std::mutex dataLock_;
  std::unique_ptr<QVHandoffAES256Cryptor> decryptor_;
  QVData batch_;
  size_t batchLength_ = 0;
  uint64_t decryptedLength_ = 0;
};
