#pragma once
// A local server on 127.0.0.1 with a fresh key; the default manager's documents and file blocks reset
// around each test; the temporary directory redirected so that what a request leaves behind shows; and
// every notification the server side posts recorded.

#include "Foundation/QVNotificationCenter.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffHTTPConnection.h"
#include "QVHandoff/QVHandoffHTTPServer.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVTestHTTPClient.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

class QVHandoffServerTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::filesystem::create_directories(tmp_);
    std::filesystem::create_directories(docs_);
    setenv("TMPDIR", tmp_.c_str(), 1);
    server_.setInterface("127.0.0.1");
    server_.setAES256Key(key_);
    ASSERT_TRUE(server_.start(nullptr));
    manager_->setLocalDocumentsInfo(nullptr);
    manager_->setCurrentLocalDocumentIndex(0);
    for (const char* name : {QVHandoffManagerSaveBackFileProgressNotification,
                             QVHandoffManagerWillSaveBackRemoteDocumentNotification,
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
  QVTestHTTPResponse post(const std::string& path, QVData body = {}) {
    return QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post(path, std::move(body)));
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
    return QVRunMainQueueUntil(
        [&] { return server_.numberOfHTTPConnections() == 0 && std::filesystem::is_empty(tmp_); });
  }

  static void expectErrorAnswer(const QVTestHTTPResponse& response) {
    EXPECT_EQ(response.status, 500);
    EXPECT_TRUE(response.body.empty());
    EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
    EXPECT_EQ(response.header("content-type"), "application/json");
  }

  QVTemporaryFolder folder_;
  const std::filesystem::path tmp_ = folder_.path() / "tmp";
  const std::filesystem::path docs_ = folder_.path() / "docs";
  const QVData key_ = QVTestBytes(32, 42);
  QVHandoffHTTPServer server_;
  const std::shared_ptr<QVHandoffManager> manager_ = QVHandoffManager::defaultManager();
  QVLogCapture log_;
  std::mutex mutex_;
  std::vector<QVNotification> notifications_;
  std::vector<QVNotificationObservation> observations_;
};
