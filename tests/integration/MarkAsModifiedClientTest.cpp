#include "QVTransferFixture.h"

namespace {

// This manager plays both ends: "Studio" is the origin of a document, "Laptop" the device with its copy.
class MarkAsModifiedClientTest : public QVTransferTest {
protected:
  void SetUp() override {
    QVTransferTest::SetUp();
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

TEST_F(MarkAsModifiedClientTest, TheOriginLearnsWhereTheCopyIsAndAsksForItBack) {
  addPeer("Studio", key_, server_.port());
  manager_->performMarkAsModifiedFileHTTPRequestForDocumentInfo(copyRecord_);
  ASSERT_TRUE(
      QVRunMainQueueUntil([&] { return posted(QVHandoffManagerDidMarkLocalFileAsModifiedNotification); }));
  const auto marked = notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification)[0].userInfo;
  EXPECT_EQ(std::get<std::string>(marked.at(QVHandoffManagerFilePathKey)), origin_->filePath());
  EXPECT_EQ(std::get<std::string>(marked.at(QVHandoffManagerDeviceNameKey)), "Laptop");
  EXPECT_EQ(std::get<QVDate>(marked.at(QVHandoffManagerFileModificationDateKey)),
            std::chrono::floor<std::chrono::milliseconds>(*copyRecord_->fileModificationDate()));
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
  EXPECT_EQ(std::get<std::string>(
                notifications(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification)[0].userInfo.at(
                    QVHandoffManagerFilePathKey)),
            copy_);
  settle();
  EXPECT_EQ(posted(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification), 0u);

  // Unmarked documents cannot be asked for.
  origin_->setRemoteDeviceName("");
  EXPECT_FALSE(manager_->forceRemoteSaveBackForLocalFileAtPath(origin_->filePath()));
  EXPECT_TRUE(
      log_.contains("Couldn't initiate force remote save back file, remote info is undefined", "error"));
}

TEST_F(MarkAsModifiedClientTest, FailuresAreLoggedAndAFailedForceIsAnnounced) {
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

} // namespace
