// SPDX-License-Identifier: MIT
#pragma once
// Writes the host's events as one JSON object per line, from any thread, and turns the framework's records
// and notification values into JSON.

#include "Foundation/QVTypes.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

class QVHandoffDocumentInfo;
class QVHandoffServerInfo;

class QVEventPrinter {
public:
  // Without a stream, events are dropped (the one-shot commands print only their result).
  explicit QVEventPrinter(std::ostream* out) : out_(out) {}

  // Adds "us", the wall clock in microseconds, and writes the line at once.
  void emit(nlohmann::json event);

  // The JSON text of `value`, every string escaped by QVEscapedText: paths are bytes, not always UTF-8,
  // and each one comes back whole from what is printed. `indent` as nlohmann's dump takes it.
  static std::string text(const nlohmann::json& value, int indent = -1);

  static nlohmann::json jsonFromDate(const std::optional<QVDate>& date);
  static nlohmann::json jsonFromValue(const QVValue& value);
  static nlohmann::json jsonFromUserInfo(const QVUserInfo& userInfo);
  static nlohmann::json jsonFromDocument(const QVHandoffDocumentInfo& documentInfo);
  static nlohmann::json jsonFromServer(const QVHandoffServerInfo& serverInfo);
  static nlohmann::json jsonFromServers(const std::vector<std::shared_ptr<QVHandoffServerInfo>>& serversInfo);

private:
  std::ostream* out_;
  std::mutex mutex_;
};
