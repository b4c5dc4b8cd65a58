#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVFileOperations.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVHandoffServerFixture.h"

#include <cctype>

namespace {

std::string percentEncoded(const std::string& text) {
  std::string encoded;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '/' || c == '.' || c == '-' || c == '_') {
      encoded += static_cast<char>(c);
    } else {
      encoded += fmt::format("%{:02X}", c);
    }
  }
  return encoded;
}

class SaveBackTest : public QVHandoffServerTest {
protected:
  // The query the client writes, in its order.
  static std::string query(const std::string& path, uint64_t size, std::optional<QVDate> date,
                           uint64_t pageNumber = 0, const std::string& point = "{0, 0}") {
    return "?path=" + percentEncoded(path) + "&size=" + std::to_string(size) +
           "&modificationDate=" + percentEncoded(date ? QVFormatProtocolDate(*date) : "") +
           "&pageNumber=" + std::to_string(pageNumber) + "&pdfPoint=" + percentEncoded(point);
  }
  QVTestHTTPResponse upload(const std::string& uri, const QVData& plaintext, size_t chunkSize = 4093) {
    const QVData body = QVHandoffAES256Data::encryptWithKeyData(plaintext, key_).value();
    return QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post(uri, body).chunked(chunkSize));
  }
  static std::optional<QVDate> latestDate(const std::string& path) {
    return QVHandoffManager::latestFileModificationDateForFileAtPath(path);
  }
  std::string savedPath(const QVTestHTTPResponse& response) const {
    return decrypt(response.body).value("filePath", std::string());
  }
};

TEST_F(SaveBackTest, ReplacesTheUnchangedDocumentAndReportsIt) {
  const QVData edited = QVTestBytes(300 * 1024 + 3, 11);
  auto doc = document("Doc.pdf", QVTestBytes(200 * 1024, 10));
  doc->setRemoteDeviceName("Laptop");
  doc->setRemoteFilePath("/remote/Doc.pdf");
  open({doc});
  const std::string path = doc->filePath();

  const QVData body = QVOpenSSLCommand("-e", key_, edited); // the wire bytes of an independent encryptor
  auto response = QVTestHTTPPerform(
      server_.port(),
      QVTestHTTPRequest::post("/api/save_back" + query(path, 200 * 1024, latestDate(path), 4, "{12.5, 300}"),
                              body)
          .chunked(1000));
  ASSERT_EQ(response.status, 200);
  EXPECT_TRUE(QVReadFile(path) == edited);
  const auto attributes = QVAttributesOfItem(path, nullptr).value();
  EXPECT_EQ(
      decrypt(response.body),
      nlohmann::json({{"filePath", path},
                      {"fileSize", edited.size()},
                      {"fileModificationDate", QVFormatProtocolDate(attributes.fileModificationDate)}}));

  // Progress after every piece, measured against the old size (so past 1), then exactly 1.
  const auto progress = notifications(QVHandoffManagerSaveBackFileProgressNotification);
  ASSERT_GT(progress.size(), 2u);
  EXPECT_GT(std::get<float>(progress[progress.size() - 2].userInfo.at(QVHandoffManagerProgressKey)), 1.0f);
  EXPECT_EQ(std::get<float>(progress.back().userInfo.at(QVHandoffManagerProgressKey)), 1.0f);
  EXPECT_EQ(std::get<std::string>(progress.back().userInfo.at(QVHandoffManagerFilePathKey)), path);
  for (const char* name : {QVHandoffManagerWillSaveBackRemoteDocumentNotification,
                           QVHandoffManagerDidSaveBackRemoteDocumentNotification}) {
    const auto posted = notifications(name);
    ASSERT_EQ(posted.size(), 1u) << name;
    EXPECT_EQ(posted[0].userInfo, (QVUserInfo{{QVHandoffManagerFilePathKey, path},
                                              {QVHandoffManagerOriginalFilePathKey, path},
                                              {QVHandoffManagerPageNumberKey, uint64_t(4)},
                                              {QVHandoffManagerPDFPointKey, QVPoint{12.5, 300}}}));
  }
  EXPECT_TRUE(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).empty());
  // The peer's marks go with its copy.
  EXPECT_EQ(doc->remoteDeviceName(), "");
  EXPECT_EQ(doc->remoteFilePath(), "");
  EXPECT_TRUE(leftNothingBehind());
}

TEST_F(SaveBackTest, ADocumentChangedHereKeepsBothVersions) {
  const QVData original = QVTestBytes(100, 1);
  const QVData edited = QVTestBytes(120, 2);
  const std::string sized = document("Sized.pdf", original)->filePath();
  const std::string later = document("Later.pdf", original)->filePath();
  const std::string close = document("Close.pdf", original)->filePath();

  // Another size: beside it. The route is a prefix, so more letters after it still reach save back.
  auto response = upload("/api/save_backup" + query(sized, 99, latestDate(sized)), edited);
  ASSERT_EQ(response.status, 200);
  EXPECT_EQ(savedPath(response), (docs_ / "Sized 2.pdf").string());
  EXPECT_TRUE(QVReadFile(sized) == original);
  EXPECT_TRUE(QVReadFile(savedPath(response)) == edited);
  const auto did = notifications(QVHandoffManagerDidSaveBackRemoteDocumentNotification);
  EXPECT_EQ(std::get<std::string>(did.at(0).userInfo.at(QVHandoffManagerOriginalFilePathKey)), sized);

  // Dates 1.5 s apart: beside it; 0.5 s apart: replaced.
  response = upload(
      "/api/save_back" + query(later, 100, *latestDate(later) + std::chrono::milliseconds(1500)), edited);
  EXPECT_EQ(savedPath(response), (docs_ / "Later 2.pdf").string());
  EXPECT_TRUE(QVReadFile(later) == original);
  response = upload("/api/save_back" + query(close, 100, *latestDate(close) - std::chrono::milliseconds(500)),
                    edited);
  EXPECT_EQ(savedPath(response), close);
  EXPECT_TRUE(QVReadFile(close) == edited);

  // A path that is gone, folders and all, is made again; size 0 gives only the final progress.
  const std::string gone = (docs_ / "new" / "deeper" / "Gone.pdf").string();
  const size_t progressBefore = notifications(QVHandoffManagerSaveBackFileProgressNotification).size();
  response = upload("/api/save_back" + query(gone, 0, std::nullopt), edited);
  EXPECT_EQ(savedPath(response), gone);
  EXPECT_TRUE(QVReadFile(gone) == edited);
  EXPECT_EQ(notifications(QVHandoffManagerSaveBackFileProgressNotification).size(), progressBefore + 1);
  EXPECT_TRUE(leftNothingBehind());
}

TEST_F(SaveBackTest, FailuresDropTheConnectionChangeNothingAndNotifyOnce) {
  const QVData original = QVTestBytes(4000, 1);
  const std::string path = document("Doc.pdf", original)->filePath();
  const std::string uri = "/api/save_back" + query(path, original.size(), latestDate(path));
  const QVData body = QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(512 * 1024, 2), key_).value();
  size_t failures = 0;
  auto expectFailure = [&](const QVTestHTTPRequest& request, const std::string& logLine) {
    EXPECT_FALSE(QVTestHTTPPerform(server_.port(), request).completed()) << logLine;
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
  expectFailure(QVTestHTTPRequest::post(uri, body).chunked(16 * 1024).abortingAfter(200 * 1024), "");
  const QVData otherKey =
      QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(5000, 3), QVTestBytes(32, 7)).value();
  expectFailure(QVTestHTTPRequest::post(uri, otherKey), "Couldn't finish decryption on save back operation");
  expectFailure(QVTestHTTPRequest::post(uri, QVData(body.begin(), body.end() - 5)),
                "Couldn't finish decryption on save back operation");
  expectFailure(QVTestHTTPRequest::post(uri), "Couldn't finish decryption on save back operation");
  manager_->setMoveFileBlock([](const std::string&, const std::string&, QVError* error) {
    *error = QVErrorFromErrno(EACCES);
    return false;
  });
  expectFailure(QVTestHTTPRequest::post(uri, body), "Couldn't move file on save back operation. Error: ");
  EXPECT_EQ(notifications(QVHandoffManagerDidSaveBackRemoteDocumentNotification).size(), 0u);

  // An invalid escape leaves the path out of the query: nowhere to put the upload, nobody to tell.
  const auto invalid =
      upload("/api/save_back?path=%ZZ" + percentEncoded(path) + "&size=4000", QVTestBytes(100));
  EXPECT_EQ(invalid.status, 0);
  EXPECT_TRUE(log_.contains("Save back file path not found in request", "error"));
  EXPECT_EQ(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).size(), failures);
  EXPECT_TRUE(QVReadFile(path) == original);
  EXPECT_TRUE(leftNothingBehind());
  EXPECT_EQ(QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post(uri).withMethod("GET")).status, 404);
}

} // namespace
