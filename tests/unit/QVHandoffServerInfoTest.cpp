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

// A live record as the registry keeps it after a tabs-list fetch.
std::shared_ptr<QVHandoffServerInfo> liveRecord(const std::shared_ptr<QVNetService>& service) {
  auto server = QVHandoffServerInfo::make();
  auto document = QVHandoffDocumentInfo::make();
  document->setFilePath("/Docs/A.pdf");
  document->setRemoteFilePath("/Docs/A.pdf");
  document->setParentServerInfo(server);
  server->setDocumentsInfo({document});
  server->setCurrentDocumentIndex(QVNotFound);
  server->setDeviceType(3);
  server->setProductName("Reader");
  server->setFiltered(true);
  server->setService(service);
  server->setHTTPAddress("http://studio.local:8080");
  server->setResolveInProgress(true);
  server->setAES256Key(QVData(32, 7));
  server->setTabsListRequestHTTPOperation(std::make_shared<IdleTask>());
  server->setTabsListRequestAttempt(3);
  server->setHasOpenedDocuments(true);
  server->setUpToDate(true);
  return server;
}

} // namespace

TEST(QVHandoffServerInfoTest, CopyIsAKeylessSnapshotSharingTheService) {
  const auto service = std::make_shared<StudioService>();
  const auto live = liveRecord(service);
  const auto copy = live->copy();

  ASSERT_EQ(copy->documentsInfo().size(), 1u);
  const auto& document = copy->documentsInfo()[0];
  EXPECT_NE(document, live->documentsInfo()[0]);
  EXPECT_FALSE(document->parentServerInfo());
  EXPECT_EQ(document->remoteFilePath(), "");
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
