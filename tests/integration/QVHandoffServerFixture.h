// SPDX-License-Identifier: MIT
#pragma once
// A local server on 127.0.0.1 with a fresh key; the default manager's documents, peers and file blocks
// reset around each test; the temporary directory redirected so that what a request leaves behind shows;
// and every notification the manager posts recorded. The manager's client reaches the server through
// peers in the registry that resolve to it, so one manager plays both ends of a transfer.

#include "Foundation/QVDateFormatting.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "QVHandoff/QVHandoffHTTPConnection.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVTestHTTP.h"
#include "support/QVPrivateCachesEnvironment.h"
#include "support/QVStandInNetService.h"

#include <fmt/format.h>

#include <filesystem>
#include <mutex>

// What came back: no response when the connection was dropped.
struct QVAnswer {
  std::shared_ptr<const QVHTTPURLResponse> response;
  QVData body;
  int64_t status() const { return response ? response->statusCode() : 0; }
  std::string header(std::string_view name) const {
    return response ? response->valueForHTTPHeaderField(name).value_or("") : "";
  }
};

struct QVTransferOutcome {
  std::vector<std::string> completions;
  std::vector<QVError> errors;
  std::vector<float> progress;
  bool ended() const { return !completions.empty() || !errors.empty(); }
};

class QVHandoffServerTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::filesystem::create_directories(tmp_);
    std::filesystem::create_directories(docs_);
    setenv("TMPDIR", tmp_.c_str(), 1);
    unsetenv("XDG_RUNTIME_DIR"); // so that the private temporary folder is in tmp_ too
    server_.setInterface("127.0.0.1");
    server_.setAES256Key(key_);
    server_.setContext(manager_->serverContext());
    ASSERT_TRUE(server_.start(nullptr));
    manager_->setLocalDocumentsInfo(nullptr);
    manager_->setCurrentLocalDocumentIndex(0);
    for (const char* name : {QVHandoffManagerSaveBackFileProgressNotification,
                             QVHandoffManagerWillSaveBackRemoteDocumentNotification,
                             QVHandoffManagerWillSaveBackLocalDocumentNotification,
                             QVHandoffManagerDidSaveBackRemoteDocumentNotification,
                             QVHandoffManagerDidFailSaveBackRemoteDocumentNotification,
                             QVHandoffManagerWillHandoffLocalDocumentNotification,
                             QVHandoffManagerDidMarkLocalFileAsModifiedNotification,
                             QVHandoffManagerRequestsForceSaveBackRemoteFileNotification,
                             QVHandoffManagerDidUpdateServersInfoNotification,
                             QVHandoffManagerDidChangeActiveRemoteDocumentNotification}) {
      observations_.emplace_back(QVNotificationCenter::defaultCenter(), name, manager_.get(),
                                 [this](const QVNotification& notification) {
                                   std::lock_guard lock(mutex_);
                                   notifications_.push_back(notification);
                                 });
    }
  }

  void TearDown() override {
    const auto records = manager_->serversInfo();
    for (const auto& record : records)
      manager_->removeRemoteServerInfoForService(record->service());
    std::filesystem::remove_all(manager_->handoffDirectoryPath());
    server_.stop();
    manager_->setLocalDocumentsInfo(nullptr);
    manager_->setCopyFileBlock(QVHandoffManagerDefaultCopyFileBlock);
    manager_->setMoveFileBlock(QVHandoffManagerDefaultMoveFileBlock);
    manager_->setFileAttributesBlock(QVHandoffManagerDefaultFileAttributesBlock);
    unsetenv("TMPDIR");
  }

  QVData encrypt(const nlohmann::json& object) const {
    return *QVHandoffMessageCodec::dataFromJSONObject(object, key_);
  }
  nlohmann::json decrypt(const QVData& body) const {
    return QVHandoffMessageCodec::JSONObjectFromData(body, key_).value_or(nullptr);
  }
  QVURLRequest request(const std::string& path, QVData body = {}, const std::string& method = "POST") const {
    QVURLRequest request(fmt::format("http://127.0.0.1:{}{}", server_.port(), path), method);
    request.setHTTPBody(std::move(body));
    return request;
  }
  // By the library's plain HTTP client, which sends whatever it is given, all at once.
  std::vector<QVAnswer> perform(const std::vector<QVURLRequest>& requests) {
    std::vector<QVAnswer> answers(requests.size());
    size_t done = 0;
    for (size_t i = 0; i < requests.size(); ++i) {
      session_
          ->dataTaskWithRequest(requests[i],
                                [&answers, &done, i](auto response, auto body, auto) {
                                  answers[i] = {response, body.value_or(QVData())};
                                  ++done;
                                })
          ->resume();
    }
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return done == requests.size(); }, std::chrono::seconds(120)));
    return answers;
  }
  QVAnswer post(const std::string& path, QVData body = {}) {
    return perform({request(path, std::move(body))}).front();
  }

  // A document open in the host: its file in the documents folder and its record.
  std::shared_ptr<QVHandoffDocumentInfo> document(const std::string& name, const QVData& content) {
    const std::string path = (docs_ / name).string();
    QVWriteFile(path, content);
    auto documentInfo = QVHandoffDocumentInfo::make();
    documentInfo->setFilePath(path);
    return documentInfo;
  }
  void open(QVHandoffManager::DocumentInfoList documentsInfo) {
    manager_->setLocalDocumentsInfo(
        std::make_shared<const QVHandoffManager::DocumentInfoList>(documentsInfo));
  }

  std::vector<QVNotification> notifications(const std::string& name) {
    std::lock_guard lock(mutex_);
    std::vector<QVNotification> found;
    std::copy_if(notifications_.begin(), notifications_.end(), std::back_inserter(found),
                 [&](const QVNotification& notification) { return notification.name == name; });
    return found;
  }

  // Once every connection has closed, no temporary file may remain (waits for both, bounded).
  bool leftNothingBehind() {
    session_ = std::make_unique<QVHTTPSessionManager>(); // the old one closes the connections it kept
    return QVRunMainQueueUntil([&] { return server_.numberOfHTTPConnections() == 0 && noFileIn(tmp_); });
  }
  static std::vector<std::filesystem::path> regularFilesUnder(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    std::error_code missing;
    for (const auto& item : std::filesystem::recursive_directory_iterator(folder, missing)) {
      if (item.is_regular_file()) files.push_back(item.path());
    }
    return files;
  }
  // Folders (the private temporary one) may stay; files may not.
  static bool noFileIn(const std::filesystem::path& folder) {
    std::error_code missing;
    const auto items = std::filesystem::recursive_directory_iterator(folder, missing);
    return std::all_of(begin(items), end(items), [](const auto& item) { return item.is_directory(); });
  }

  static void expectErrorAnswer(const QVAnswer& response) {
    EXPECT_EQ(response.status(), 500);
    EXPECT_TRUE(response.body.empty());
    EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
    EXPECT_EQ(response.header("content-type"), "application/json");
  }

  // A peer found with `key` and resolved to `port` on the loopback; with documents its tabs list is fetched.
  std::shared_ptr<QVStandInNetService> addPeer(const std::string& name, const QVData& key, uint16_t port,
                                               bool hasDocs = false) {
    auto peer = std::make_shared<QVStandInNetService>(name);
    peer->setTXTRecord({{"hasDocs", QVTXTValue(hasDocs ? "1" : "0")}, {"productName", QVTXTValue("Reader")}});
    manager_->addRemoteServerInfoForService(peer, key);
    peer->setResolvedAddress("127.0.0.1", port);
    manager_->netServiceDidResolveAddress(peer);
    return peer;
  }

  // How the peer's tabs list describes one of its documents.
  static std::shared_ptr<QVHandoffDocumentInfo> remote(const QVHandoffDocumentInfo& local,
                                                       const std::string& device = "Studio") {
    auto documentInfo = local.copy();
    documentInfo->setDeviceName(device);
    documentInfo->setFileSize(std::filesystem::file_size(local.filePath()));
    documentInfo->setFileModificationDate(
        QVHandoffManager::latestFileModificationDateForFileAtPath(local.filePath()));
    return documentInfo;
  }

  // A transfer by the manager whose handlers record their calls; `onProgress` runs inside the progress one.
  template <class... Arguments>
  std::shared_ptr<QVTransferOutcome> transfer(void (QVHandoffManager::*operation)(Arguments...),
                                              std::function<void()> onProgress, auto... arguments) {
    auto outcome = std::make_shared<QVTransferOutcome>();
    ((*manager_).*operation)(
        arguments...,
        [outcome, onProgress](float progress) {
          outcome->progress.push_back(progress);
          if (onProgress) onProgress();
        },
        [outcome](const std::string& path) { outcome->completions.push_back(path); },
        [outcome](const QVError& error) { outcome->errors.push_back(error); });
    return outcome;
  }
  auto handoff(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
               std::function<void()> onProgress = {}) {
    return transfer(&QVHandoffManager::handoffRemoteDocumentWithInfo, onProgress, documentInfo);
  }
  auto saveBack(const std::string& path, const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                std::function<void()> onProgress = {}) {
    return transfer(&QVHandoffManager::saveBackFileAtPath, onProgress, path, documentInfo);
  }
  // Waits (bounded) for the transfer to end.
  static std::shared_ptr<QVTransferOutcome> ended(std::shared_ptr<QVTransferOutcome> outcome) {
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return outcome->ended(); }));
    return outcome;
  }
  // The download failed once, with `code` in `domain`, and left no file in the handoff folder.
  void expectDownloadFailed(const QVTransferOutcome& outcome, int64_t code,
                            const std::string& domain = QVHandoffErrorDomain) {
    EXPECT_TRUE(outcome.completions.empty());
    ASSERT_EQ(outcome.errors.size(), 1u);
    EXPECT_EQ(outcome.errors[0], (QVError{domain, code, {}}));
    EXPECT_TRUE(noFileIn(manager_->handoffDirectoryPath()));
    EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());
  }
  // What the real server sends before an encrypted body of `length` bytes (none: no length announced).
  static std::string answerHead(std::optional<size_t> length, size_t decodedLength) {
    return fmt::format("HTTP/1.1 200 OK\r\nConnection: close\r\n{}Last-Modified: {}\r\n"
                       "X-Decoded-Content-Length: {}\r\n\r\n",
                       length ? fmt::format("Content-Length: {}\r\n", *length) : "",
                       QVFormatHTTPDate(std::chrono::system_clock::now()), decodedLength);
  }
  // Long enough for a late handler call or notification over the loopback to show.
  static void settle() {
    QVRunMainQueueUntil([] { return false; }, std::chrono::milliseconds(300));
  }

  QVTemporaryFolder folder_;
  const std::filesystem::path tmp_ = folder_.path() / "tmp";
  const std::filesystem::path docs_ = folder_.path() / "docs";
  const QVData key_ = QVTestBytes(32, 42);
  QVHandoffHTTPServer server_;
  std::unique_ptr<QVHTTPSessionManager> session_ = std::make_unique<QVHTTPSessionManager>();
  const std::shared_ptr<QVHandoffManager> manager_ = QVHandoffManager::defaultManager();
  QVLogCapture log_;
  std::mutex mutex_;
  std::vector<QVNotification> notifications_;
  std::vector<QVNotificationObservation> observations_;
};
