#include "QVTransferFixture.h"

namespace {

class SaveBackTransferTest : public QVTransferTest {
protected:
  void SetUp() override {
    QVTransferTest::SetUp();
    observations_.emplace_back(QVNotificationCenter::defaultCenter(),
                               QVHandoffManagerWillSaveBackLocalDocumentNotification, manager_.get(),
                               [this](const QVNotification& notification) {
                                 std::lock_guard lock(mutex_);
                                 notifications_.push_back(notification);
                               });
  }
  // The handed-off copy of `record`, edited, and tagged as the download tags it.
  std::string editedCopy(const QVHandoffDocumentInfo& record, const QVData& content,
                         const std::string& name = "Copy.pdf") {
    const std::string path = folder_.file(name);
    QVWriteFile(path, content);
    QVHandoffManager::addDocumentInfo(record, path);
    return path;
  }
  std::shared_ptr<QVTransferOutcome> finished(std::shared_ptr<QVTransferOutcome> outcome) {
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return outcome->ended(); }));
    // The client keeps its connection: only the files tell that both sides cleaned up.
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return std::filesystem::is_empty(tmp_); }));
    EXPECT_TRUE(manager_->saveBackDocumentsInfo().empty());
    return outcome;
  }
};

TEST_F(SaveBackTransferTest, ReplacesTheOriginalAndRetagsTheCopy) {
  addPeer("Studio", key_, server_.port());
  for (const size_t size : {size_t(1), size_t(16), size_t(5 * 1024 * 1024 + 3)}) {
    const auto origin = document("My Doc {1}.pdf", QVTestBytes(100));
    open({origin});
    const auto record = remote(*origin);
    record->setPageNumber(3);
    record->setPdfPoint({12.5, 30});
    const QVData edited = QVTestBytes(size, static_cast<uint32_t>(size));
    const std::string copy = editedCopy(*record, edited);

    const auto outcome = finished(saveBack(copy, record));
    ASSERT_EQ(outcome->completions, std::vector<std::string>{copy}) << size;
    EXPECT_TRUE(QVReadFile(origin->filePath()) == edited) << size;
    EXPECT_TRUE(QVReadFile(copy) == edited);
    EXPECT_FALSE(outcome->progress.empty()) << size;

    // The query arrived whole: the origin reports the page and the point it was given.
    const auto saved = notifications(QVHandoffManagerDidSaveBackRemoteDocumentNotification);
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_EQ(std::get<uint64_t>(saved[0].userInfo.at(QVHandoffManagerPageNumberKey)), 3u);
    EXPECT_EQ(std::get<QVPoint>(saved[0].userInfo.at(QVHandoffManagerPDFPointKey)), (QVPoint{12.5, 30}));
    const auto willSaveBack = notifications(QVHandoffManagerWillSaveBackLocalDocumentNotification);
    ASSERT_EQ(willSaveBack.size(), 1u);
    EXPECT_EQ(std::get<std::string>(willSaveBack[0].userInfo.at(QVHandoffManagerFilePathKey)), copy);

    // The next save back of the copy carries the origin's new size and date.
    const auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
    ASSERT_TRUE(tags);
    EXPECT_EQ(tags->filePath(), origin->filePath());
    EXPECT_EQ(tags->fileSize(), size);
    EXPECT_EQ(tags->fileModificationDate(), record->fileModificationDate());
    EXPECT_EQ(std::chrono::floor<std::chrono::milliseconds>(
                  *QVHandoffManager::latestFileModificationDateForFileAtPath(origin->filePath())),
              record->fileModificationDate());
    notifications_.clear();
  }
}

TEST_F(SaveBackTransferTest, AChangedOriginalIsKeptAndTheCopyLandsBesideIt) {
  addPeer("Studio", key_, server_.port());
  const auto origin = document("Doc.pdf", QVTestBytes(100));
  open({origin});
  const auto record = remote(*origin);
  const std::string copy = editedCopy(*record, QVTestBytes(300, 3));
  QVWriteFile(origin->filePath(), QVTestBytes(101, 2));

  const auto outcome = finished(saveBack(copy, record));
  ASSERT_EQ(outcome->completions.size(), 1u);
  const std::string beside = (docs_ / "Doc 2.pdf").string();
  EXPECT_EQ(record->filePath(), beside);
  EXPECT_TRUE(QVReadFile(beside) == QVTestBytes(300, 3));
  EXPECT_TRUE(QVReadFile(origin->filePath()) == QVTestBytes(101, 2));
  EXPECT_EQ(QVHandoffManager::documentInfoForFileAtPath(copy)->filePath(), beside);
}

TEST_F(SaveBackTransferTest, FailuresLeaveTheCopyAndTheOriginalAsTheyWere) {
  const QVData original = QVTestBytes(100);
  const auto origin = document("Doc.pdf", original);
  open({origin});
  const QVData edited = QVTestBytes(5 * 1024 * 1024, 5);
  const std::string copy = editedCopy(*remote(*origin), edited);
  const auto expectUntouched = [&](const QVTransferOutcome& outcome, int64_t code, const char* domain) {
    EXPECT_TRUE(outcome.completions.empty());
    ASSERT_EQ(outcome.errors.size(), 1u);
    EXPECT_EQ(outcome.errors[0], (QVError{domain, code, {}}));
    EXPECT_TRUE(QVReadFile(copy) == edited);
    EXPECT_TRUE(QVReadFile(origin->filePath()) == original);
  };

  // Refused before anything is sent: no handler at all.
  EXPECT_FALSE(saveBack(folder_.file("Missing.pdf"), remote(*origin))->ended());
  EXPECT_TRUE(log_.contains("Couldn't initiate save back, file not exists at path (", "error"));
  expectUntouched(*finished(saveBack(copy, remote(*origin, "Nowhere"))), 0, QVHandoffErrorDomain);

  addPeer("Studio", key_, server_.port());
  manager_->setCopyFileBlock([](const std::string&, const std::string&, QVError* error) {
    *error = QVError{QVPOSIXErrorDomain, 28, {}};
    return false;
  });
  expectUntouched(*finished(saveBack(copy, remote(*origin))), 0, QVHandoffErrorDomain);
  EXPECT_TRUE(log_.contains("Couldn't copy file for save back operation. Error:", "error"));
  manager_->setCopyFileBlock(QVHandoffManagerDefaultCopyFileBlock);

  // Cancelled from its first progress callback: silent, nothing saved.
  const auto cancelled =
      saveBack(copy, remote(*origin), [&] { manager_->cancelSaveBackDocumentWithInfo(remote(*origin)); });
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return !cancelled->progress.empty(); }));
  settle();
  EXPECT_FALSE(cancelled->ended());
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return std::filesystem::is_empty(tmp_); }));
  EXPECT_TRUE(QVReadFile(origin->filePath()) == original);
  EXPECT_TRUE(QVReadFile(copy) == edited);

  // An empty copy goes out as an empty body, which the origin cannot decrypt.
  const std::string empty = editedCopy(*remote(*origin), {}, "Empty.pdf");
  expectUntouched(*finished(saveBack(empty, remote(*origin))), QVURLError::NetworkConnectionLost,
                  QVURLErrorDomain);
  QVWriteFile(copy, edited);

  // The peer has left: its port no longer answers.
  server_.stop();
  expectUntouched(*finished(saveBack(copy, remote(*origin))), QVURLError::CannotConnectToHost,
                  QVURLErrorDomain);
  EXPECT_TRUE(log_.contains("Save back file request error", "error"));
}

} // namespace
