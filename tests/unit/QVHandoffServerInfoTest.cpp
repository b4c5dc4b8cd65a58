#include "QVHandoff/QVHandoffServerInfo.h"

#include "Network/DNSSD/QVNetService.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"

#include <gtest/gtest.h>

namespace {

struct StudioService : QVNetService {
  std::string name() const override { return "Studio Mac"; }
  std::string description() const override { return "<StudioService>"; }
};

struct IdleTask : QVURLSessionDataTask {
  void cancel() override {}
};

} // namespace

TEST(QVHandoffServerInfoTest, CopyIsAKeylessSnapshotSharingTheService) {
  // A live record as the registry keeps it after a tabs-list fetch.
  auto live = QVHandoffServerInfo::make();
  auto document = QVHandoffDocumentInfo::make();
  document->setFilePath("/Docs/A.pdf");
  document->setRemoteFilePath("/Docs/A.pdf");
  document->setParentServerInfo(live);
  live->setDocumentsInfo({document});
  live->setCurrentDocumentIndex(QVNotFound);
  live->setFiltered(true);
  live->setService(std::make_shared<StudioService>());
  live->setResolveInProgress(true);
  live->setAES256Key(QVData(32, 7));
  live->setTabsListRequestHTTPOperation(std::make_shared<IdleTask>());
  live->setTabsListRequestAttempt(3);
  live->setHasOpenedDocuments(true);
  live->setUpToDate(true);
  const auto copy = live->copy();

  ASSERT_EQ(copy->documentsInfo().size(), 1u);
  EXPECT_NE(copy->documentsInfo()[0], document);
  EXPECT_FALSE(copy->documentsInfo()[0]->parentServerInfo());
  EXPECT_EQ(copy->documentsInfo()[0]->remoteFilePath(), "");
  EXPECT_EQ(copy->currentDocumentIndex(), QVNotFound);
  EXPECT_EQ(copy->deviceName(), "Studio Mac") << "the service is shared";
  EXPECT_TRUE(copy->AES256Key().empty());
  EXPECT_FALSE(copy->tabsListRequestHTTPOperation());
  EXPECT_EQ(copy->tabsListRequestAttempt(), 0u);
  EXPECT_FALSE(copy->filtered() || copy->resolveInProgress() || copy->hasOpenedDocuments() ||
               copy->upToDate());

  // The live record talks to the peer; the copy cannot.
  const nlohmann::json message = {{"filePath", "/Docs/A.pdf"}};
  const auto encrypted = live->AES256EncryptedDataWithJSONObject(message);
  ASSERT_TRUE(encrypted);
  EXPECT_EQ(live->JSONObjectWithAES256EncryptedData(*encrypted), message);
  EXPECT_FALSE(copy->AES256EncryptedDataWithJSONObject(message));
  EXPECT_FALSE(copy->JSONObjectWithAES256EncryptedData(*encrypted));
}
