// SPDX-License-Identifier: MIT
#include "QVHandoffServerFixture.h"

namespace {

// This manager plays both ends: "Studio" is the origin of a document, "Laptop" the device with its copy.
class MarkAsModifiedTest : public QVHandoffServerTest {
protected:
  void SetUp() override {
    QVHandoffServerTest::SetUp();
    origin_ = document("Doc.pdf", QVTestBytes(100));
    copyRecord_ = remote(*origin_);
    open({origin_});
    QVWriteFile(copy_, QVTestBytes(10));
    copyRecord_->setRemoteFilePath(copy_);
    copyRecord_->setRemoteDeviceName("Laptop");
  }
  size_t posted(const char* name) { return notifications(name).size(); }

  std::shared_ptr<QVHandoffDocumentInfo> origin_;
  std::shared_ptr<QVHandoffDocumentInfo> copyRecord_;
  const std::string copy_ = folder_.file("Copy.pdf");
};

TEST_F(MarkAsModifiedTest, TheOriginLearnsWhereTheCopyIsAndAsksForItBack) {
  addPeer("Studio", key_, server_.port());
  manager_->performMarkAsModifiedFileHTTPRequestForDocumentInfo(copyRecord_);
  ASSERT_TRUE(
      QVRunMainQueueUntil([&] { return posted(QVHandoffManagerDidMarkLocalFileAsModifiedNotification); }));
  const auto marked = notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification)[0].userInfo;
  EXPECT_EQ(marked,
            (QVUserInfo{{QVHandoffManagerFilePathKey, origin_->filePath()},
                        {QVHandoffManagerFileModificationDateKey,
                         std::chrono::floor<std::chrono::milliseconds>(*copyRecord_->fileModificationDate())},
                        {QVHandoffManagerDeviceNameKey, std::string("Laptop")},
                        {QVHandoffManagerDeviceTypeKey, int64_t(3)}}));
  EXPECT_EQ(origin_->remoteFilePath(), copy_);
  EXPECT_EQ(origin_->remoteDeviceName(), "Laptop");

  // Refused on this side, with nothing sent.
  EXPECT_FALSE(manager_->forceRemoteSaveBackForLocalFileAtPath(folder_.file("Missing.pdf")));
  EXPECT_TRUE(
      log_.contains("Couldn't initiate force remote save back file, file not exists at path (", "error"));
  EXPECT_FALSE(manager_->forceRemoteSaveBackForLocalFileAtPath(copy_));
  EXPECT_TRUE(
      log_.contains("Couldn't initiate force remote save back file, local documentInfo == nil", "error"));
  EXPECT_FALSE(manager_->forceRemoteSaveBackForLocalFileAtPath(origin_->filePath()));
  EXPECT_TRUE(log_.contains("Server HTTP address is unresolved", "info"));

  // The device holding the copy is asked for it.
  addPeer("Laptop", key_, server_.port());
  EXPECT_TRUE(manager_->forceRemoteSaveBackForLocalFileAtPath(origin_->filePath()));
  ASSERT_TRUE(QVRunMainQueueUntil(
      [&] { return posted(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification); }));
  EXPECT_EQ(notifications(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification)[0].userInfo,
            (QVUserInfo{{QVHandoffManagerFilePathKey, copy_}}));
  settle();
  EXPECT_EQ(posted(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification), 0u);

  // Unmarked documents cannot be asked for.
  origin_->setRemoteDeviceName("");
  EXPECT_FALSE(manager_->forceRemoteSaveBackForLocalFileAtPath(origin_->filePath()));
  EXPECT_TRUE(
      log_.contains("Couldn't initiate force remote save back file, remote info is undefined", "error"));
}

TEST_F(MarkAsModifiedTest, FailuresAreLoggedAndAFailedForceIsAnnounced) {
  // The peer that holds the copy answers 500: it cannot read a request under another key.
  addPeer("Studio", QVTestBytes(32, 9), server_.port());
  addPeer("Laptop", QVTestBytes(32, 9), server_.port());
  manager_->performMarkAsModifiedFileHTTPRequestForDocumentInfo(copyRecord_);
  ASSERT_TRUE(
      QVRunMainQueueUntil([&] { return log_.contains("Mark as modified file request error", "error"); }));
  EXPECT_TRUE(origin_->remoteFilePath().empty());

  origin_->setRemoteFilePath(copy_);
  origin_->setRemoteDeviceName("Laptop");
  EXPECT_TRUE(manager_->forceRemoteSaveBackForLocalFileAtPath(origin_->filePath()));
  ASSERT_TRUE(
      QVRunMainQueueUntil([&] { return posted(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification); }));
  EXPECT_EQ(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification)[0].userInfo,
            (QVUserInfo{{QVHandoffManagerOriginalFilePathKey, origin_->filePath()}}));
  EXPECT_TRUE(log_.contains("Force remote save back file request error", "error"));

  // Marking needs this device's own server running and published.
  const auto copyRecord = remote(*origin_);
  manager_->markAsModifiedFileAtPath(copy_, copyRecord);
  EXPECT_TRUE(log_.contains("Couldn't mark as modified file, since local server is not running", "warning"));
  EXPECT_FALSE(copyRecord->hasRemoteInfo());
  manager_->localServer()->setInterface("127.0.0.1");
  ASSERT_TRUE(manager_->localServer()->start(nullptr));
  manager_->markAsModifiedFileAtPath(copy_, copyRecord);
  manager_->localServer()->stop();
  EXPECT_EQ(copyRecord->remoteFilePath(), copy_);
  EXPECT_TRUE(log_.contains("Document has no remote info", "error"));
  manager_->postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath("");
  EXPECT_TRUE(log_.contains("Couldn't post did fail save back remote document notification", "error"));
}

TEST_F(MarkAsModifiedTest, BadRequestsAreRefusedOrChangeNothing) {
  origin_->setRemoteFilePath("/old");
  origin_->setRemoteDeviceName("Old");
  const nlohmann::json request = {{"filePath", origin_->filePath()},
                                  {"remoteFilePath", "/copies/Doc.pdf"},
                                  {"remoteFileModificationDate", "2026-03-01T09:05:07.042"},
                                  {"remoteDeviceName", "Laptop"},
                                  {"remoteDeviceType", 3},
                                  {"ignored", true}};
  const std::vector<std::pair<std::string, std::string>> keys = {
      {"filePath", "Mark as modified file path not found in request"},
      {"remoteFilePath", "Mark as modified remote file path not found in request"},
      {"remoteFileModificationDate", "Mark as modified remote file modification date not found in request"},
      {"remoteDeviceName", "Mark as modified remote device name not found in request"},
      {"remoteDeviceType", "Mark as modified remote device type not found in request"}};
  for (const auto& [key, line] : keys) {
    auto object = request;
    object.erase(key);
    expectErrorAnswer(post("/api/mark_as_modified", encrypt(object)));
    EXPECT_TRUE(log_.contains(line, "error")) << key;
    EXPECT_EQ(log_.count("not found in request"), 1u) << key; // the first missing key only
    log_.clear();
  }
  expectErrorAnswer(post("/api/mark_as_modified", QVTestBytes(48)));
  EXPECT_TRUE(log_.contains("Couldn't decrypt mark as modified file request body", "error"));
  expectErrorAnswer(post("/api/mark_as_modified", encrypt(nlohmann::json::array({origin_->filePath()}))));
  EXPECT_EQ(post("/api/mark_as_modified?x", encrypt(request)).status(), 405);
  // A path not open here is answered but changes nothing.
  auto elsewhere = request;
  elsewhere["filePath"] = "/not/open.pdf";
  EXPECT_TRUE(QVHandoffMessageCodec::isSuccessResponseData(
      post("/api/mark_as_modified", encrypt(elsewhere)).body, key_));
  EXPECT_EQ(origin_->remoteFilePath(), "/old");
  EXPECT_EQ(origin_->remoteDeviceName(), "Old");
  EXPECT_EQ(posted(QVHandoffManagerDidMarkLocalFileAsModifiedNotification), 0u);

  // A date that does not parse is left out.
  auto undated = request;
  undated["remoteFileModificationDate"] = "2026-03-01 09:05";
  EXPECT_TRUE(QVHandoffMessageCodec::isSuccessResponseData(
      post("/api/mark_as_modified", encrypt(undated)).body, key_));
  const auto marked = notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification);
  ASSERT_EQ(marked.size(), 1u);
  EXPECT_FALSE(marked[0].userInfo.contains(QVHandoffManagerFileModificationDateKey));
  EXPECT_EQ(origin_->remoteDeviceName(), "Laptop");

  expectErrorAnswer(post("/api/force_remote_save_back", encrypt({{"path", "/any/Copy.pdf"}})));
  EXPECT_TRUE(log_.contains("Force remote save back file path not found in request", "error"));
  expectErrorAnswer(post("/api/force_remote_save_back", *QVHandoffMessageCodec::dataFromJSONObject(
                                                            {{"filePath", "/a"}}, QVTestBytes(32, 8))));
  EXPECT_TRUE(log_.contains("Couldn't decrypt force remote save back file request body", "error"));
  EXPECT_EQ(posted(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification), 0u);
}

} // namespace
