#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVFileOperations.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVHandoffServerFixture.h"

namespace {

using HandoffDocumentTest = QVHandoffServerTest;

TEST_F(HandoffDocumentTest, StreamsAnEncryptedCopyThatTheCommandLineDecrypts) {
  const QVData content = QVTestBytes(1024 * 1024, 3); // a multiple of the block size
  auto pdf = document("Big.pdf", content);
  // A range is ignored: the whole file comes, from its start.
  auto response = QVTestHTTPPerform(
      server_.port(), QVTestHTTPRequest::post("/api/handoff", encrypt({{"filePath", pdf->filePath()}}))
                          .header("Range: bytes=100-"));
  ASSERT_TRUE(response.completed());
  ASSERT_EQ(response.status, 200);
  EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
  EXPECT_EQ(response.header("content-type"), "application/pdf");
  EXPECT_EQ(response.header("transfer-encoding"), "chunked");
  EXPECT_EQ(response.header("x-decoded-content-length"), "1048576");
  const auto date = QVHandoffManager::latestFileModificationDateForFileAtPath(pdf->filePath());
  EXPECT_EQ(response.header("last-modified"), QVFormatHTTPDate(*date));
  EXPECT_EQ(response.body.size(), content.size() + 16); // a whole block of padding at the end
  EXPECT_TRUE(QVOpenSSLCommand("-d", key_, response.body) == content);

  const auto willHandoff = notifications(QVHandoffManagerWillHandoffLocalDocumentNotification);
  ASSERT_EQ(willHandoff.size(), 1u);
  EXPECT_EQ(std::get<std::string>(willHandoff[0].userInfo.at(QVHandoffManagerFilePathKey)), pdf->filePath());
  // The private copy lived as long as the connection.
  EXPECT_TRUE(leftNothingBehind());

  // An empty document is one block of padding; no extension means no guessed type.
  auto empty = post("/api/handoff", encrypt({{"filePath", document("Empty", {})->filePath()}}));
  EXPECT_EQ(empty.status, 200);
  EXPECT_EQ(empty.body, QVOpenSSLCommand("-e", key_, {}));
  EXPECT_EQ(empty.header("content-type"), "application/json");
  EXPECT_EQ(empty.header("x-decoded-content-length"), "0");
}

TEST_F(HandoffDocumentTest, TwentyConcurrentDownloadsOfOneDocument) {
  const QVData content = QVTestBytes(512 * 1024 + 7, 5);
  const auto body = encrypt({{"filePath", document("Shared.pdf", content)->filePath()}});
  const std::vector<QVTestHTTPRequest> requests(20, QVTestHTTPRequest::post("/api/handoff", body));
  for (const auto& response : QVTestHTTPPerformConcurrently(server_.port(), requests)) {
    ASSERT_EQ(response.status, 200);
    EXPECT_TRUE(QVHandoffAES256Data::decryptWithKeyData(response.body, key_) == content);
  }
  EXPECT_EQ(notifications(QVHandoffManagerWillHandoffLocalDocumentNotification).size(), 20u);
  EXPECT_TRUE(leftNothingBehind());
}

TEST_F(HandoffDocumentTest, BadRequestsAnswer500AndLeaveNothing) {
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
  EXPECT_EQ(post("/api/handoff", encrypt({{"filePath", "/nowhere/x.pdf"}})).status, 404);

  EXPECT_EQ(post("/api/handoff?filePath=x", encrypt({{"filePath", path}})).status, 405);
  EXPECT_EQ(post("/api/handoff", QVData(QVHandoffHTTPConnection::kMaxRequestBodyLength + 1)).status, 0);
  EXPECT_TRUE(log_.contains("exceeds 1048576 bytes", "error"));
  // Sent chunked the size is unknown up front: the cap applies as the pieces arrive.
  EXPECT_EQ(
      QVTestHTTPPerform(server_.port(),
                        QVTestHTTPRequest::post("/api/handoff", QVData(3 * 1024 * 1024)).chunked(64 * 1024))
          .status,
      0);
  EXPECT_TRUE(leftNothingBehind());
}

} // namespace
