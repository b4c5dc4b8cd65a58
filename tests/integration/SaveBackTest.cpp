// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVHandoffServerFixture.h"

using namespace std::chrono_literals;

namespace {

class SaveBackTest : public QVHandoffServerTest {
protected:
  // The handed-off copy of `record`, edited, and tagged as the download tags it.
  std::string editedCopy(const QVHandoffDocumentInfo& record, const QVData& content,
                         const std::string& name = "Copy.pdf") {
    const std::string path = folder_.file(name);
    QVWriteFile(path, content);
    QVHandoffManager::addDocumentInfo(record, path);
    return path;
  }
  std::shared_ptr<QVTransferOutcome> finished(std::shared_ptr<QVTransferOutcome> outcome) {
    ended(outcome);
    // The client keeps its connection: only the files tell that both sides cleaned up.
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return noFileIn(tmp_); }));
    EXPECT_TRUE(manager_->saveBackDocumentsInfo().empty());
    return outcome;
  }
  float progress(const QVNotification& notification) {
    return std::get<float>(notification.userInfo.at(QVHandoffManagerProgressKey));
  }
};

TEST_F(SaveBackTest, ReplacesTheUnchangedOriginalAndRetagsTheCopy) {
  addPeer("Studio", key_, server_.port());
  for (const size_t size : {size_t(1), size_t(16), size_t(5 * 1024 * 1024 + 3)}) {
    const auto origin = document("My Doc {1}.pdf", QVTestBytes(100));
    origin->setRemoteDeviceName("Laptop");
    origin->setRemoteFilePath("/remote/Doc.pdf");
    open({origin});
    const std::string path = origin->filePath();
    const auto record = remote(*origin);
    record->setPageNumber(3);
    record->setPdfPoint({12.5, 30});
    const QVData edited = QVTestBytes(size, static_cast<uint32_t>(size));
    const std::string copy = editedCopy(*record, edited);

    const auto outcome = finished(saveBack(copy, record));
    ASSERT_EQ(outcome->completions, std::vector<std::string>{copy}) << size;
    EXPECT_TRUE(QVReadFile(path) == edited) << size;
    EXPECT_TRUE(QVReadFile(copy) == edited);
    EXPECT_FALSE(outcome->progress.empty()) << size;
    const auto willSaveBack = notifications(QVHandoffManagerWillSaveBackLocalDocumentNotification);
    ASSERT_EQ(willSaveBack.size(), 1u);
    EXPECT_EQ(std::get<std::string>(willSaveBack[0].userInfo.at(QVHandoffManagerFilePathKey)), copy);

    // The query arrived whole: the origin reports the page and the point it was given.
    for (const char* name : {QVHandoffManagerWillSaveBackRemoteDocumentNotification,
                             QVHandoffManagerDidSaveBackRemoteDocumentNotification}) {
      const auto posted = notifications(name);
      ASSERT_EQ(posted.size(), 1u) << name;
      EXPECT_EQ(posted[0].userInfo, (QVUserInfo{{QVHandoffManagerFilePathKey, path},
                                                {QVHandoffManagerOriginalFilePathKey, path},
                                                {QVHandoffManagerPageNumberKey, uint64_t(3)},
                                                {QVHandoffManagerPDFPointKey, QVPoint{12.5, 30}}}));
    }
    EXPECT_TRUE(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).empty());
    // The origin's progress is measured against the old size (so past 1 for a larger copy), then exactly 1.
    const auto progresses = notifications(QVHandoffManagerSaveBackFileProgressNotification);
    ASSERT_FALSE(progresses.empty());
    EXPECT_EQ(progress(progresses.back()), 1.0f);
    EXPECT_EQ(std::get<std::string>(progresses.back().userInfo.at(QVHandoffManagerFilePathKey)), path);
    EXPECT_TRUE(size <= 100 || progress(progresses.at(progresses.size() - 2)) > 1.0f) << size;
    // The peer's marks go with its copy.
    EXPECT_EQ(origin->remoteDeviceName() + origin->remoteFilePath(), "");

    // The next save back of the copy carries the origin's new size and date.
    const auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
    ASSERT_TRUE(tags);
    EXPECT_EQ(tags->filePath(), path);
    EXPECT_EQ(tags->fileSize(), size);
    EXPECT_EQ(tags->fileModificationDate(), record->fileModificationDate());
    EXPECT_EQ(std::chrono::floor<std::chrono::milliseconds>(
                  *QVHandoffManager::latestFileModificationDateForFileAtPath(path)),
              record->fileModificationDate());
    notifications_.clear();
  }
}

TEST_F(SaveBackTest, AnOriginalChangedHereKeepsBothVersions) {
  addPeer("Studio", key_, server_.port());
  const QVData original = QVTestBytes(100, 1);
  const QVData edited = QVTestBytes(120, 2);
  // What the copy's record says of the original: another size or a date more than a second off puts the
  // copy beside the original; a date less than a second off replaces it.
  const struct {
    const char* name;
    uint64_t size;
    std::chrono::milliseconds shift;
    const char* saved;
  } cases[] = {{"Sized.pdf", 99, 0ms, "Sized 2.pdf"},
               {"Later.pdf", 100, 1500ms, "Later 2.pdf"},
               {"Close.pdf", 100, -500ms, "Close.pdf"}};
  for (const auto& c : cases) {
    const auto origin = document(c.name, original);
    const auto record = remote(*origin);
    record->setFileSize(c.size);
    record->setFileModificationDate(*record->fileModificationDate() + c.shift);
    const std::string copy = editedCopy(*record, edited);
    ASSERT_EQ(finished(saveBack(copy, record))->completions.size(), 1u) << c.name;
    const std::string saved = (docs_ / c.saved).string();
    EXPECT_EQ(record->filePath(), saved);
    EXPECT_EQ(QVHandoffManager::documentInfoForFileAtPath(copy)->filePath(), saved);
    EXPECT_TRUE(QVReadFile(saved) == edited) << c.name;
    EXPECT_EQ(QVReadFile(origin->filePath()) == original, saved != origin->filePath()) << c.name;
    EXPECT_EQ(std::get<std::string>(notifications(QVHandoffManagerDidSaveBackRemoteDocumentNotification)
                                        .back()
                                        .userInfo.at(QVHandoffManagerOriginalFilePathKey)),
              origin->filePath());
  }

  // A path that is gone, folders and all, is made again; size 0 gives only the final progress.
  const auto record = remote(*document("Gone.pdf", original));
  record->setFilePath((docs_ / "new" / "deeper" / "Gone.pdf").string());
  record->setFileSize(0);
  const size_t progressBefore = notifications(QVHandoffManagerSaveBackFileProgressNotification).size();
  ASSERT_EQ(finished(saveBack(editedCopy(*record, edited), record))->completions.size(), 1u);
  EXPECT_TRUE(QVReadFile((docs_ / "new" / "deeper" / "Gone.pdf").string()) == edited);
  EXPECT_EQ(notifications(QVHandoffManagerSaveBackFileProgressNotification).size(), progressBefore + 1);
}

TEST_F(SaveBackTest, BadUploadsDropTheConnectionChangeNothingAndNotifyOnce) {
  const QVData original = QVTestBytes(4000, 1);
  const std::string path = document("Doc.pdf", original)->filePath();
  const std::string uri = "/api/save_back?path=" + path + "&size=4000";
  const QVData body = QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(512 * 1024, 2), key_).value();
  size_t failures = 0;
  auto expectFailure = [&](const std::function<void()>& upload, const std::string& logLine) {
    upload();
    // A client that aborts may be gone before the server has even accepted it: wait for the notice.
    ++failures;
    auto failed = [&] { return notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification); };
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return failed().size() >= failures; })) << logLine;
    EXPECT_TRUE(leftNothingBehind()) << logLine;
    EXPECT_TRUE(logLine.empty() || log_.contains(logLine, "error")) << logLine;
    ASSERT_EQ(failed().size(), failures) << logLine;
    EXPECT_EQ(failed().back().userInfo, (QVUserInfo{{QVHandoffManagerOriginalFilePathKey, path}}));
    EXPECT_TRUE(QVReadFile(path) == original) << logLine;
  };

  // The peer goes away halfway: no line of ours, only the notice.
  expectFailure([&] { QVHangUpMidUpload(server_.port(), uri, body, 200 * 1024); }, "");
  const QVData otherKey =
      QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(5000, 3), QVTestBytes(32, 7)).value();
  for (const QVData& bad : {otherKey, QVData(body.begin(), body.end() - 5), QVData()})
    expectFailure([&] { EXPECT_EQ(post(uri, bad).status(), 0); },
                  "Couldn't finish decryption on save back operation");
  manager_->setMoveFileBlock([](const std::string&, const std::string&, QVError* error) {
    *error = QVErrorFromErrno(EACCES);
    return false;
  });
  expectFailure([&] { EXPECT_EQ(post(uri, body).status(), 0); },
                "Couldn't move file on save back operation. Error: ");
  EXPECT_EQ(notifications(QVHandoffManagerDidSaveBackRemoteDocumentNotification).size(), 0u);

  // An invalid escape leaves the path out of the query: nowhere to put the upload, nobody to tell. The
  // route is a prefix, so more letters after it still reach save back.
  EXPECT_EQ(post("/api/save_backup?path=%ZZ" + path + "&size=4000", body).status(), 0);
  EXPECT_TRUE(log_.contains("Save back file path not found in request", "error"));
  EXPECT_EQ(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).size(), failures);
  EXPECT_TRUE(QVReadFile(path) == original);
  EXPECT_TRUE(leftNothingBehind());
  EXPECT_EQ(perform({request(uri, {}, "GET")}).front().status(), 404);
}

TEST_F(SaveBackTest, FailedSaveBacksLeaveTheCopyAndTheOriginalAsTheyWere) {
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
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return noFileIn(tmp_); }));
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

TEST_F(SaveBackTest, AnAnswerWithMistypedFieldsFailsAndLeavesTheTags) {
  const auto origin = document("Doc.pdf", QVTestBytes(100));
  const auto record = remote(*origin);
  const std::string copy = editedCopy(*record, QVTestBytes(120, 2));
  const auto before = QVHandoffManager::documentInfoForFileAtPath(copy);
  ASSERT_TRUE(before);
  const std::string date = QVHandoffMessageCodec::dateFormatter().stringFromDate(
      *record->fileModificationDate() + std::chrono::hours(1));
  const nlohmann::json answers[] = {
      {{"filePath", 5}, {"fileSize", 120}, {"fileModificationDate", date}},
      {{"filePath", "/elsewhere/Doc.pdf"}, {"fileSize", "120"}, {"fileModificationDate", date}},
      {{"filePath", "/elsewhere/Doc.pdf"}, {"fileSize", -1}, {"fileModificationDate", date}},
      {{"filePath", "/elsewhere/Doc.pdf"}, {"fileSize", 1.5}, {"fileModificationDate", date}},
      {{"filePath", "/elsewhere/Doc.pdf"}, {"fileSize", 120}, {"fileModificationDate", "yesterday"}},
      {{"filePath", "/elsewhere/Doc.pdf"}, {"fileSize", 120}},
      nlohmann::json::array(),
      // Last, the well-formed answer: the same peer does re-tag the copy with it.
      {{"filePath", "/elsewhere/Doc.pdf"}, {"fileSize", 120}, {"fileModificationDate", date}},
  };
  for (const auto& answer : answers) {
    const QVData body = encrypt(answer);
    std::string reply = fmt::format("HTTP/1.1 200 OK\r\nContent-Length: {}\r\n\r\n", body.size());
    reply.append(body.begin(), body.end());
    QVRawHTTPServer peer(reply, true);
    const auto service = addPeer("Studio", key_, peer.port());
    const auto outcome = finished(saveBack(copy, remote(*origin)));
    const auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
    ASSERT_TRUE(tags) << answer;
    if (&answer == &answers[std::size(answers) - 1]) {
      EXPECT_EQ(outcome->completions, std::vector<std::string>{copy});
      EXPECT_EQ(tags->filePath(), "/elsewhere/Doc.pdf");
      EXPECT_EQ(tags->fileSize(), 120u);
    } else {
      EXPECT_TRUE(outcome->completions.empty()) << answer;
      ASSERT_EQ(outcome->errors.size(), 1u) << answer;
      EXPECT_EQ(outcome->errors[0], (QVError{QVHandoffErrorDomain, 0, {}})) << answer;
      EXPECT_TRUE(log_.contains("Couldn't decrypt save back file response data", "error")) << answer;
      EXPECT_EQ(tags->filePath(), before->filePath()) << answer;
      EXPECT_EQ(tags->fileSize(), before->fileSize()) << answer;
      EXPECT_EQ(tags->fileModificationDate(), before->fileModificationDate()) << answer;
    }
    manager_->removeRemoteServerInfoForService(service);
    log_.clear();
  }
}

TEST_F(SaveBackTest, TheUploadedCopyIsPrivateWhileItExists) {
  addPeer("Studio", key_, server_.port());
  const auto origin = document("Doc.pdf", QVTestBytes(100));
  const std::string copy = editedCopy(*remote(*origin), QVTestBytes(5 * 1024 * 1024, 3));
  ::chmod(copy.c_str(), 0644);
  std::vector<std::filesystem::perms> seen;
  const auto outcome = finished(saveBack(copy, remote(*origin), [&] {
    std::error_code missing;
    for (const auto& item : std::filesystem::recursive_directory_iterator(tmp_, missing)) {
      if (item.is_directory()) continue;
      const auto& file = item.path();
      seen.push_back(std::filesystem::status(file).permissions());
      seen.push_back(std::filesystem::status(file.parent_path()).permissions());
    }
  }));
  ASSERT_EQ(outcome->completions, std::vector<std::string>{copy});
  ASSERT_FALSE(seen.empty());
  using enum std::filesystem::perms;
  for (size_t i = 0; i < seen.size(); i += 2) {
    EXPECT_EQ(seen[i] & all, owner_read | owner_write);
    EXPECT_EQ(seen[i + 1] & all, owner_all);
  }
}

} // namespace
