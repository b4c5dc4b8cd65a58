#include "Foundation/QVDateFormatting.h"
#include "QVHandoffServerFixture.h"

namespace {

using TabsListTest = QVHandoffServerTest;

TEST_F(TabsListTest, ListsOpenDocumentsFreshFromDisk) {
  auto pdf = document("Report.pdf", QVTestBytes(1000));
  pdf->setPageNumber(3);
  pdf->setPdfPoint({12.5, 300});
  pdf->setICloudPath("/cloud/Report.pdf");
  pdf->setFileSize(1); // stale: refreshed by the request
  auto plain = document("Notes", QVTestBytes(10));
  plain->setPdfPoint({4, 4}); // no page: no position is sent at all
  auto typed = document("data.txt", QVTestBytes(5));
  typed->setContentType("text/x-custom");
  typed->setDropboxPath("/dropbox/data.txt");
  open({pdf, plain, typed, pdf});
  manager_->setCurrentLocalDocumentIndex(1);

  auto response = post("/api/tabs_list", QVTestBytes(100)); // a body is read and dropped
  ASSERT_EQ(response.status, 200);
  EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
  EXPECT_EQ(response.header("content-type"), "application/json");
  const auto tabs = decrypt(response.body);
  ASSERT_TRUE(tabs.is_array());
  ASSERT_EQ(tabs.size(), 4u);

  const auto pdfDate = QVHandoffManager::latestFileModificationDateForFileAtPath(pdf->filePath());
  EXPECT_EQ(tabs[0], nlohmann::json({{"filePath", pdf->filePath()},
                                     {"fileSize", 1000},
                                     {"fileModificationDate", QVFormatProtocolDate(*pdfDate)},
                                     {"contentType", "application/pdf"},
                                     {"pageNumber", 3},
                                     {"pdfPointX", 12.5},
                                     {"pdfPointY", 300.0},
                                     {"iCloudPath", "/cloud/Report.pdf"},
                                     {"active", 0}}));
  EXPECT_FALSE(tabs[1].contains("contentType"));
  EXPECT_FALSE(tabs[1].contains("pageNumber") || tabs[1].contains("pdfPointX") ||
               tabs[1].contains("pdfPointY"));
  EXPECT_EQ(tabs[1]["active"], 1);
  EXPECT_EQ(tabs[2]["contentType"], "text/x-custom");
  EXPECT_EQ(tabs[2]["dropboxPath"], "/dropbox/data.txt");
  // The same record twice: both take the "active" of its first position.
  EXPECT_EQ(tabs[3], tabs[0]);
  EXPECT_TRUE(log_.contains("File extension is empty and no content type specified!", "error"));

  // The records were refreshed in place.
  EXPECT_EQ(pdf->fileSize(), 1000u);
  EXPECT_EQ(pdf->fileModificationDate(), pdfDate);
  EXPECT_EQ(pdf->contentType(), "application/pdf");

  // An index past the list makes no document active.
  manager_->setCurrentLocalDocumentIndex(4);
  for (const auto& tab : decrypt(post("/api/tabs_list").body))
    EXPECT_EQ(tab["active"], 0);
}

TEST_F(TabsListTest, OneBadDocumentFailsTheWholeList) {
  auto empty = post("/api/tabs_list");
  EXPECT_EQ(empty.status, 200);
  EXPECT_EQ(decrypt(empty.body), nlohmann::json::array());

  auto gone = document("Gone.pdf", QVTestBytes(10));
  std::filesystem::remove(gone->filePath());
  open({document("Here.pdf", QVTestBytes(10)), gone});
  expectErrorAnswer(post("/api/tabs_list"));
  EXPECT_TRUE(log_.contains("Couldn't get file attributes due", "error"));

  open({QVHandoffDocumentInfo::make()});
  expectErrorAnswer(post("/api/tabs_list"));
  EXPECT_TRUE(log_.contains("File path is undefined", "error"));
}

TEST_F(TabsListTest, OnlyAnExactPostIsRouted) {
  EXPECT_EQ(post("/api/tabs_list?x=1").status, 405);
  EXPECT_EQ(post("/api/tabs_list/").status, 405);
  EXPECT_EQ(post("/api/tabs").status, 405);
  EXPECT_EQ(
      QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/api/tabs_list").withMethod("GET")).status,
      404);
}

} // namespace
