// SPDX-License-Identifier: MIT
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVHandoffServerFixture.h"

#include <cstring>

namespace {

using HandoffTest = QVHandoffServerTest;

TEST_F(HandoffTest, ServesEncryptedCopiesThatTheCommandLineDecrypts) {
  const QVData content = QVTestBytes(512 * 1024, 5); // a multiple of the block size
  auto pdf = document("Shared.pdf", content);
  // A range is ignored: the whole file comes, from its start.
  std::vector<QVURLRequest> requests(20, request("/api/handoff", encrypt({{"filePath", pdf->filePath()}})));
  requests[0].setValue("bytes=100-", "Range");
  const auto responses = perform(requests);
  for (const auto& response : responses) {
    ASSERT_EQ(response.status(), 200);
    EXPECT_TRUE(QVHandoffAES256Data::decryptWithKeyData(response.body, key_) == content);
  }
  const auto& response = responses[0];
  EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
  EXPECT_EQ(response.header("content-type"), "application/pdf");
  EXPECT_EQ(response.header("transfer-encoding"), "chunked");
  EXPECT_EQ(response.header("x-decoded-content-length"), "524288");
  const auto date = QVHandoffManager::latestFileModificationDateForFileAtPath(pdf->filePath());
  EXPECT_EQ(response.header("last-modified"), QVFormatHTTPDate(*date));
  EXPECT_EQ(response.body.size(), content.size() + 16); // a whole block of padding at the end
  EXPECT_TRUE(QVOpenSSLCommand("-d", key_, response.body) == content);
  EXPECT_EQ(notifications(QVHandoffManagerWillHandoffLocalDocumentNotification).size(), 20u);
  // The private copies lived as long as their connections.
  EXPECT_TRUE(leftNothingBehind());

  // An empty document is one block of padding; no extension means no guessed type.
  auto empty = post("/api/handoff", encrypt({{"filePath", document("Empty", {})->filePath()}}));
  EXPECT_EQ(empty.status(), 200);
  EXPECT_EQ(empty.body, QVOpenSSLCommand("-e", key_, {}));
  EXPECT_EQ(empty.header("content-type"), "application/json");
  EXPECT_EQ(empty.header("x-decoded-content-length"), "0");
}

TEST_F(HandoffTest, BadRequestsAnswer500AndLeaveNothing) {
  const std::string path = document("Doc.pdf", QVTestBytes(100))->filePath();
  expectErrorAnswer(post(
      "/api/handoff", *QVHandoffMessageCodec::dataFromJSONObject({{"filePath", path}}, QVTestBytes(32, 9))));
  EXPECT_TRUE(log_.contains("Couldn't decrypt handoff document request body", "error"));
  for (const auto& object :
       {nlohmann::json::array({path}), nlohmann::json({{"filePath", 7}}), nlohmann::json({{"path", path}})}) {
    expectErrorAnswer(post("/api/handoff", encrypt(object)));
  }
  EXPECT_EQ(log_.count("Handoff document file path not found in request"), 3u);

  // A missing document is still announced before the copy fails.
  expectErrorAnswer(post("/api/handoff", encrypt({{"filePath", path + ".missing"}})));
  EXPECT_TRUE(log_.contains("Couldn't copy file on handoff document operation. Error: ", "error"));
  EXPECT_EQ(notifications(QVHandoffManagerWillHandoffLocalDocumentNotification).size(), 1u);

  manager_->setFileAttributesBlock(
      [](const std::string& path, QVError* error) { return QVAttributesOfItem(path + ".missing", error); });
  expectErrorAnswer(post("/api/handoff", encrypt({{"filePath", path}})));
  EXPECT_TRUE(
      log_.contains("Couldn't get file file attributes on handoff document operation. Error: ", "error"));

  // No modification date for the source: no response at all, the server's not-found answer.
  manager_->setCopyFileBlock(
      [&](const std::string&, const std::string& to, QVError* error) { return QVCopyItem(path, to, error); });
  manager_->setFileAttributesBlock([](const std::string&, QVError*) { return QVFileAttributes{}; });
  EXPECT_EQ(post("/api/handoff", encrypt({{"filePath", "/nowhere/x.pdf"}})).status(), 404);

  EXPECT_EQ(post("/api/handoff?filePath=x", encrypt({{"filePath", path}})).status(), 405);
  EXPECT_EQ(post("/api/handoff", QVData(QVHandoffHTTPConnection::kMaxRequestBodyLength + 1)).status(), 0);
  EXPECT_TRUE(log_.contains("exceeds 1048576 bytes", "error"));
  // Sent chunked the size is unknown up front: the cap applies as the pieces arrive.
  auto chunked = request("/api/handoff");
  chunked.setHTTPBodyStream([sent = std::make_shared<size_t>(0)](uint8_t* buffer, size_t capacity) {
    const size_t length = std::min(capacity, 3 * 1024 * 1024 - *sent);
    std::memset(buffer, 0, length);
    *sent += length;
    return length;
  });
  EXPECT_EQ(perform({chunked}).front().status(), 0);
  EXPECT_TRUE(leftNothingBehind());
}

TEST_F(HandoffTest, DownloadsEverySizeTagsTheCopyAndNeverOverwritesOne) {
  addPeer("Studio", key_, server_.port());
  for (const size_t size : {size_t(0), size_t(1), size_t(16), size_t(5 * 1024 * 1024 + 3)}) {
    const QVData content = QVTestBytes(size, static_cast<uint32_t>(size));
    const auto local = document("Doc.pdf", content);
    const auto outcome = handoff(remote(*local));
    EXPECT_FALSE(manager_->handoffDocumentsInfo().empty());
    ASSERT_TRUE(QVRunMainQueueUntil([&] { return outcome->ended(); })) << size;
    ASSERT_EQ(outcome->completions.size(), 1u) << size;
    const std::string path = outcome->completions[0];
    EXPECT_EQ(path, manager_->handoffDirectoryPath() + "/Studio" + local->filePath());
    EXPECT_TRUE(QVReadFile(path) == content) << size;
    EXPECT_EQ(outcome->progress.empty(), size == 0) << size;
    EXPECT_TRUE(std::is_sorted(outcome->progress.begin(), outcome->progress.end()));

    // Tagged with the origin; the date is the one "Last-Modified" announced (whole seconds).
    const auto tags = QVHandoffManager::documentInfoForFileAtPath(path);
    ASSERT_TRUE(tags);
    EXPECT_EQ(tags->filePath(), local->filePath());
    EXPECT_EQ(tags->deviceName(), "Studio");
    EXPECT_EQ(tags->fileSize(), size);
    const auto date = QVHandoffManager::latestFileModificationDateForFileAtPath(local->filePath());
    EXPECT_EQ(tags->fileModificationDate(), std::chrono::floor<std::chrono::seconds>(*date));
    EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());

    // The same document again lands beside the first copy.
    const auto again = ended(handoff(remote(*local)));
    ASSERT_EQ(again->completions.size(), 1u);
    EXPECT_EQ(again->completions[0], path.substr(0, path.size() - 4) + " 2.pdf");
    EXPECT_TRUE(QVReadFile(path) == content);
    std::filesystem::remove_all(manager_->handoffDirectoryPath());
  }
}

TEST_F(HandoffTest, EveryFailureIsReportedOnceAndLeavesNoFile) {
  const auto local = document("Doc.pdf", QVTestBytes(5 * 1024 * 1024));

  // No peer of that name: at once, before any file exists.
  expectDownloadFailed(*handoff(remote(*local, "Nowhere")), 0);
  EXPECT_TRUE(log_.contains("Server HTTP address is unresolved", "info"));

  // Another key: the peer cannot read the request and answers 500.
  auto peer = addPeer("Studio", QVTestBytes(32, 7), server_.port());
  expectDownloadFailed(*ended(handoff(remote(*local))), QVURLError::BadServerResponse, QVURLErrorDomain);
  EXPECT_TRUE(log_.contains("Handoff remote document request error", "error"));
  manager_->removeRemoteServerInfoForService(peer);

  // A copy shorter than the size the peer announces.
  peer = addPeer("Studio", key_, server_.port());
  manager_->setCopyFileBlock([](const std::string& source, const std::string& destination, QVError*) {
    QVData content = QVReadFile(source);
    content.pop_back();
    QVWriteFile(destination, content);
    return true;
  });
  expectDownloadFailed(*ended(handoff(remote(*local))), 0);
  EXPECT_TRUE(log_.contains("Handoff remote document request file transfer incomplete", "error"));
  manager_->setCopyFileBlock(QVHandoffManagerDefaultCopyFileBlock);

  // Answers the real server never gives: no size or date, a wrong size, a cut cipher.
  const QVData cipher = QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(1000), key_).value();
  const std::string date = "Last-Modified: " + QVFormatHTTPDate(std::chrono::system_clock::now()) + "\r\n";
  const struct {
    std::string head;
    size_t length;
    const char* message;
  } answers[] = {
      {date, cipher.size(), "failed to get new file size."},
      {date + "X-Decoded-Content-Length: abc\r\n", cipher.size(), "failed to get new file size."},
      {date + "X-Decoded-Content-Length: 1001\r\n", cipher.size(), "file transfer incomplete"},
      {"X-Decoded-Content-Length: 1000\r\n", cipher.size(), "failed to get new file modification date."},
      {date + "X-Decoded-Content-Length: 1000\r\n", cipher.size() - 1, "decryption finish error"},
  };
  const auto small = document("Small.pdf", QVTestBytes(1000));
  for (const auto& answer : answers) {
    std::string reply = fmt::format("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: {}\r\n{}\r\n",
                                    answer.length, answer.head);
    reply.append(cipher.begin(), cipher.begin() + static_cast<std::ptrdiff_t>(answer.length));
    QVRawHTTPServer raw(reply);
    manager_->removeRemoteServerInfoForService(peer);
    peer = addPeer("Studio", key_, raw.port());
    expectDownloadFailed(*ended(handoff(remote(*small))), 0);
    EXPECT_TRUE(log_.contains(std::string("Handoff remote document request ") + answer.message, "error"));
    log_.clear();
  }

  // The peer goes away in the middle of the body.
  manager_->removeRemoteServerInfoForService(peer);
  addPeer("Studio", key_, server_.port());
  expectDownloadFailed(*ended(handoff(remote(*local), [this] { server_.stop(); })),
                       QVURLError::NetworkConnectionLost, QVURLErrorDomain);
  EXPECT_TRUE(QVReadFile(local->filePath()) == QVTestBytes(5 * 1024 * 1024));
}

TEST_F(HandoffTest, CancelIsSilentAndANewerDownloadTakesTheChunksOver) {
  addPeer("Studio", key_, server_.port());
  const QVData content = QVTestBytes(5 * 1024 * 1024);
  const auto first = document("First.pdf", content);
  const auto second = document("Second.pdf", content);

  // Cancelled from its own first progress callback, through a copy of the record.
  const auto cancelled =
      handoff(remote(*first), [&] { manager_->cancelHandoffRemoteDocumentWithInfo(remote(*first)); });
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return !cancelled->progress.empty(); }));
  settle();
  EXPECT_FALSE(cancelled->ended());
  EXPECT_EQ(cancelled->progress.size(), 1u);
  EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());
  EXPECT_TRUE(noFileIn(manager_->handoffDirectoryPath()));
  EXPECT_TRUE(QVReadFile(first->filePath()) == content);
  EXPECT_TRUE(log_.contains("Cancel handoff for document", "info"));
  manager_->cancelHandoffRemoteDocumentWithInfo(remote(*first));

  // Overlapping: the older download no longer gets chunks and fails (short of bytes or of its last block).
  const auto older = handoff(remote(*first));
  const auto newer = handoff(remote(*second));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return older->ended() && newer->ended(); }));
  ASSERT_EQ(older->errors.size(), 1u);
  EXPECT_EQ(older->errors[0], QVHandoffManager::internalError());
  ASSERT_EQ(newer->completions.size(), 1u);
  EXPECT_TRUE(QVReadFile(newer->completions[0]) == content);
  EXPECT_EQ(std::filesystem::path(newer->completions[0]).filename(), "Second.pdf");
  EXPECT_FALSE(std::filesystem::exists(manager_->handoffDirectoryPath() + "/Studio" + first->filePath()));
}

TEST_F(HandoffTest, ACancelMeetingABodyCutPartWayEndsTheDownloadOnceAndLeavesNoCopy) {
  const QVData content = QVTestBytes(1024 * 1024, 4);
  const QVData cipher = QVHandoffAES256Data::encryptWithKeyData(content, key_).value();
  // Announces the whole body, sends a bit more than half of it, slowly, and hangs up.
  QVRawHTTPServer cut(answerHead(cipher.size(), content.size()) +
                          std::string(cipher.begin(), cipher.begin() + 600 * 1024),
                      false, 8 * 1024);
  addPeer("Studio", key_, cut.port());
  const auto local = document("Doc.pdf", content);
  // The cancel lands before, at or after the failure, on the main thread while chunks and the failure come
  // from the client's thread; whichever ends the download first, it ends once.
  for (const int delay : {0, 40, 70, 75, 80, 90, 120}) {
    const auto record = remote(*local);
    const auto outcome = handoff(record);
    QVMainQueue::main().postAfter(std::chrono::milliseconds(delay),
                                  [&] { manager_->cancelHandoffRemoteDocumentWithInfo(record); });
    QVRunMainQueueUntil([&] { return outcome->ended(); }, std::chrono::milliseconds(400));
    settle();
    EXPECT_TRUE(outcome->completions.empty()) << delay;
    EXPECT_LE(outcome->errors.size(), 1u) << delay;
    if (!outcome->errors.empty()) {
      EXPECT_EQ(outcome->errors[0].domain, QVURLErrorDomain) << delay;
    }
    EXPECT_TRUE(noFileIn(manager_->handoffDirectoryPath())) << delay;
    EXPECT_TRUE(manager_->handoffDocumentsInfo().empty()) << delay;
  }
}

TEST_F(HandoffTest, ARecordRestartedWhileOldChunksArriveGetsOnlyTheNewCopy) {
  // Slow enough that the first download's chunks still arrive when the same record starts again.
  const QVData content = QVTestBytes(1024 * 1024, 3);
  const QVData cipher = QVHandoffAES256Data::encryptWithKeyData(content, key_).value();
  QVRawHTTPServer slow(answerHead(cipher.size(), content.size()) + std::string(cipher.begin(), cipher.end()),
                       false, 8 * 1024);
  addPeer("Studio", key_, slow.port());
  const auto local = document("Doc.pdf", content);
  const auto record = remote(*local);

  std::shared_ptr<QVTransferOutcome> second;
  const auto first = handoff(record, [&] {
    if (second) return;
    // Cancel and restart at once, on the record whose first download is mid-body.
    manager_->cancelHandoffRemoteDocumentWithInfo(record);
    second = handoff(record);
  });
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return second && second->ended(); }, std::chrono::seconds(60)));
  settle();
  EXPECT_FALSE(first->ended()) << "a cancelled download ends silently";
  ASSERT_EQ(second->completions.size(), 1u);
  EXPECT_TRUE(second->errors.empty());
  const std::string path = second->completions[0];
  EXPECT_EQ(path, manager_->handoffDirectoryPath() + "/Studio" + local->filePath());
  EXPECT_TRUE(QVReadFile(path) == content) << "no byte of the first download in the second copy";
  EXPECT_EQ(regularFilesUnder(manager_->handoffDirectoryPath()).size(), 1u);
  EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());
}

} // namespace
