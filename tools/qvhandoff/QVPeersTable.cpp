// SPDX-License-Identifier: MIT
#include "QVPeersTable.h"

#include "QVEscapedText.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

std::string QVPeersTable::text(const std::vector<std::shared_ptr<QVHandoffServerInfo>>& serversInfo) {
  if (serversInfo.empty()) return "no peers\n";
  using Row = std::array<std::string, 3>;
  std::vector<Row> rows = {{"DEVICE", "PRODUCT", "DOCUMENT (* active)"}};
  for (const auto& serverInfo : serversInfo) {
    const std::string device = QVEscapedText::escape(serverInfo->deviceName());
    const std::string product = QVEscapedText::escape(serverInfo->productName());
    const auto& documents = serverInfo->documentsInfo();
    if (documents.empty()) rows.push_back({device, product, "-"});
    for (size_t i = 0; i < documents.size(); ++i) {
      const char* mark = i == serverInfo->currentDocumentIndex() ? "* " : "  ";
      rows.push_back({device, product, mark + QVEscapedText::escape(documents[i]->filePath())});
    }
  }
  size_t deviceWidth = 0;
  size_t productWidth = 0;
  for (const auto& row : rows) {
    deviceWidth = std::max(deviceWidth, row[0].size());
    productWidth = std::max(productWidth, row[1].size());
  }
  std::string table;
  for (const auto& row : rows)
    table += fmt::format("{:<{}}  {:<{}}  {}\n", row[0], deviceWidth, row[1], productWidth, row[2]);
  return table;
}
