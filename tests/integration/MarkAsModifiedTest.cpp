#include "Foundation/QVDateFormatting.h"
#include "QVHandoffServerFixture.h"

namespace {

class MarkAsModifiedTest : public QVHandoffServerTest {
protected:
  nlohmann::json request(const std::string& filePath) const {
    return {{"filePath", filePath},
            {"remoteFilePath", "/copies/Doc.pdf"},
            {"remoteFileModificationDate", "2026-03-01T09:05:07.042"},
            {"remoteDeviceName", "Laptop"},
            {"remoteDeviceType", 3},
            {"ignored", true}};
  }
  void expectSuccessAnswer(const QVTestHTTPResponse& response) const {
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
    EXPECT_TRUE(QVHandoffMessageCodec::isSuccessResponseData(response.body, key_));
  }
};

TEST_F(MarkAsModifiedTest, MarksTheOpenDocumentAndTellsTheHost) {
  auto doc = document("Doc.pdf", QVTestBytes(10));
  open({document("Other.pdf", QVTestBytes(10)), doc});
  expectSuccessAnswer(post("/api/mark_as_modified", encrypt(request(doc->filePath()))));
  EXPECT_EQ(doc->remoteFilePath(), "/copies/Doc.pdf");
  EXPECT_EQ(doc->remoteDeviceName(), "Laptop");
  auto marked = notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification);
  ASSERT_EQ(marked.size(), 1u);
  EXPECT_EQ(marked[0].userInfo, (QVUserInfo{{QVHandoffManagerFilePathKey, doc->filePath()},
                                            {QVHandoffManagerFileModificationDateKey,
                                             *QVParseProtocolDate("2026-03-01T09:05:07.042")},
                                            {QVHandoffManagerDeviceNameKey, std::string("Laptop")},
                                            {QVHandoffManagerDeviceTypeKey, int64_t(3)}}));

  // The marks survive the host rebuilding its list with a new record for the same path.
  auto rebuilt = QVHandoffDocumentInfo::make();
  rebuilt->setFilePath(doc->filePath());
  open({rebuilt});
  EXPECT_EQ(rebuilt->remoteFilePath(), "/copies/Doc.pdf");
  EXPECT_EQ(rebuilt->remoteDeviceName(), "Laptop");

  // A date that does not parse is left out; a path not open here is answered but changes nothing.
  auto undated = request(doc->filePath());
  undated["remoteFileModificationDate"] = "2026-03-01 09:05";
  expectSuccessAnswer(post("/api/mark_as_modified", encrypt(undated)));
  marked = notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification);
  ASSERT_EQ(marked.size(), 2u);
  EXPECT_FALSE(marked[1].userInfo.contains(QVHandoffManagerFileModificationDateKey));
  expectSuccessAnswer(post("/api/mark_as_modified", encrypt(request("/not/open.pdf"))));
  EXPECT_EQ(notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification).size(), 2u);
}

TEST_F(MarkAsModifiedTest, EveryMissingKeyIsRefusedInOrder) {
  auto doc = document("Doc.pdf", QVTestBytes(10));
  doc->setRemoteFilePath("/old");
  doc->setRemoteDeviceName("Old");
  open({doc});
  const std::vector<std::pair<std::string, std::string>> keys = {
      {"filePath", "Mark as modified file path not found in request"},
      {"remoteFilePath", "Mark as modified remote file path not found in request"},
      {"remoteFileModificationDate", "Mark as modified remote file modification date not found in request"},
      {"remoteDeviceName", "Mark as modified remote device name not found in request"},
      {"remoteDeviceType", "Mark as modified remote device type not found in request"}};
  for (const auto& [key, line] : keys) {
    auto object = request(doc->filePath());
    object.erase(key);
    expectErrorAnswer(post("/api/mark_as_modified", encrypt(object)));
    EXPECT_TRUE(log_.contains(line, "error")) << key;
    EXPECT_EQ(log_.count("not found in request"), 1u) << key; // the first missing key only
    log_.clear();
  }
  expectErrorAnswer(post("/api/mark_as_modified", QVTestBytes(48)));
  EXPECT_TRUE(log_.contains("Couldn't decrypt mark as modified file request body", "error"));
  expectErrorAnswer(post("/api/mark_as_modified", encrypt(nlohmann::json::array({doc->filePath()}))));
  EXPECT_EQ(doc->remoteFilePath(), "/old");
  EXPECT_EQ(doc->remoteDeviceName(), "Old");
  EXPECT_TRUE(notifications(QVHandoffManagerDidMarkLocalFileAsModifiedNotification).empty());
  EXPECT_EQ(post("/api/mark_as_modified?x", encrypt(request(doc->filePath()))).status, 405);
}

TEST_F(MarkAsModifiedTest, ForceRemoteSaveBackPassesAnyPathOn) {
  expectSuccessAnswer(post("/api/force_remote_save_back", encrypt({{"filePath", "/any/Copy.pdf"}})));
  const auto forced = notifications(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification);
  ASSERT_EQ(forced.size(), 1u);
  EXPECT_EQ(forced[0].userInfo, (QVUserInfo{{QVHandoffManagerFilePathKey, std::string("/any/Copy.pdf")}}));

  expectErrorAnswer(post("/api/force_remote_save_back", encrypt({{"path", "/any/Copy.pdf"}})));
  EXPECT_TRUE(log_.contains("Force remote save back file path not found in request", "error"));
  expectErrorAnswer(post("/api/force_remote_save_back", *QVHandoffMessageCodec::dataFromJSONObject(
                                                            {{"filePath", "/a"}}, QVTestBytes(32, 8))));
  EXPECT_TRUE(log_.contains("Couldn't decrypt force remote save back file request body", "error"));
  EXPECT_EQ(notifications(QVHandoffManagerRequestsForceSaveBackRemoteFileNotification).size(), 1u);
}

} // namespace
