// SPDX-License-Identifier: MIT
// `qvhandoff peers` at a terminal: columns that line up whatever the names, the active document starred,
// and paths escaped as everywhere else.

#include "QVPeersTable.h"
#include "support/QVStandInNetService.h"

#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <gtest/gtest.h>

#include <sstream>

class QVPeersTableTest : public ::testing::Test {
protected:
  static std::shared_ptr<QVHandoffServerInfo> server(const std::string& name, const std::string& product,
                                                     const std::vector<std::string>& paths, uint64_t active) {
    auto serverInfo = QVHandoffServerInfo::make();
    serverInfo->setService(std::make_shared<QVStandInNetService>(name));
    serverInfo->setProductName(product);
    std::vector<std::shared_ptr<QVHandoffDocumentInfo>> documents;
    for (const auto& path : paths) {
      auto documentInfo = QVHandoffDocumentInfo::make();
      documentInfo->setFilePath(path);
      documents.push_back(documentInfo);
    }
    serverInfo->setDocumentsInfo(std::move(documents));
    serverInfo->setCurrentDocumentIndex(active);
    return serverInfo;
  }

  static std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
      result.push_back(line);
    return result;
  }
};

TEST_F(QVPeersTableTest, OneRowPerDocumentInAlignedColumnsWithTheActiveOneStarred) {
  EXPECT_EQ(QVPeersTable::text({}), "no peers\n");
  const auto table = lines(QVPeersTable::text({
      server("edits-a", "Host A", {"/home/a/Report.pdf", "/home/a/Caf\xe9.txt"}, 1),
      server("a much longer device name", "P", {}, 0),
  }));
  ASSERT_EQ(table.size(), 4u);
  const size_t product = table[0].find("PRODUCT");
  const size_t document = table[0].find("DOCUMENT");
  ASSERT_NE(product, std::string::npos);
  for (const auto& line : table)
    EXPECT_EQ(line.find_first_not_of(' ', product), product) << "misaligned: " << line;
  EXPECT_EQ(table[1].substr(0, 7), "edits-a");
  EXPECT_EQ(table[1].substr(document), "  /home/a/Report.pdf");
  EXPECT_EQ(table[2].substr(document), "* /home/a/Caf\\xe9.txt");
  EXPECT_EQ(table[3].substr(0, 25), "a much longer device name");
  EXPECT_EQ(table[3].substr(document), "-") << "a peer with nothing open still shows";
}
