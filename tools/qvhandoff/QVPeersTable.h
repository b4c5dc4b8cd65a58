// SPDX-License-Identifier: MIT
#pragma once
// `qvhandoff peers` for a person at a terminal: one row per open document, the active one starred.

#include <memory>
#include <string>
#include <vector>

class QVHandoffServerInfo;

class QVPeersTable {
public:
  static std::string text(const std::vector<std::shared_ptr<QVHandoffServerInfo>>& serversInfo);
};
