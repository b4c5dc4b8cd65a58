// SPDX-License-Identifier: MIT
#include "QVEventPrinter.h"

#include "Foundation/QVDateFormatting.h"
#include "QVEscapedText.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <chrono>

void QVEventPrinter::emit(nlohmann::json event) {
  if (!out_) return;
  event["us"] = std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
  const std::string line = text(event);
  std::lock_guard lock(mutex_);
  *out_ << line << std::endl;
}

namespace {

nlohmann::json escaped(const nlohmann::json& value) {
  if (value.is_string()) return QVEscapedText::escape(value.get_ref<const std::string&>());
  if (value.is_array()) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& element : value)
      array.push_back(escaped(element));
    return array;
  }
  if (value.is_object()) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, element] : value.items())
      object[QVEscapedText::escape(key)] = escaped(element);
    return object;
  }
  return value;
}

} // namespace

std::string QVEventPrinter::text(const nlohmann::json& value, int indent) {
  // Escaped, every string is valid UTF-8; the handler only guards against a slip.
  return escaped(value).dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

nlohmann::json QVEventPrinter::jsonFromDate(const std::optional<QVDate>& date) {
  if (!date) return nullptr;
  return QVFormatProtocolDate(*date);
}

nlohmann::json QVEventPrinter::jsonFromValue(const QVValue& value) {
  return std::visit(
      [](const auto& v) -> nlohmann::json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, QVDate>) {
          return jsonFromDate(v);
        } else if constexpr (std::is_same_v<T, QVPoint>) {
          return {{"x", v.x}, {"y", v.y}};
        } else if constexpr (std::is_same_v<T, std::shared_ptr<QVHandoffDocumentInfo>>) {
          return v ? jsonFromDocument(*v) : nlohmann::json(nullptr);
        } else {
          return v;
        }
      },
      value);
}

nlohmann::json QVEventPrinter::jsonFromUserInfo(const QVUserInfo& userInfo) {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, value] : userInfo)
    object[key] = jsonFromValue(value);
  return object;
}

nlohmann::json QVEventPrinter::jsonFromDocument(const QVHandoffDocumentInfo& documentInfo) {
  nlohmann::json object = {{"path", documentInfo.filePath()},
                           {"size", documentInfo.fileSize()},
                           {"modified", jsonFromDate(documentInfo.fileModificationDate())},
                           {"contentType", documentInfo.contentType()},
                           {"device", documentInfo.deviceName()},
                           {"deviceType", documentInfo.deviceType()},
                           {"productName", documentInfo.productName()}};
  if (documentInfo.pageNumber() != 0) {
    object["page"] = documentInfo.pageNumber();
    object["point"] = jsonFromValue(documentInfo.pdfPoint());
  }
  if (documentInfo.hasRemoteInfo()) {
    object["remoteDevice"] = documentInfo.remoteDeviceName();
    object["remotePath"] = documentInfo.remoteFilePath();
  }
  return object;
}

nlohmann::json QVEventPrinter::jsonFromServer(const QVHandoffServerInfo& serverInfo) {
  const uint64_t active = serverInfo.currentDocumentIndex();
  nlohmann::json documents = nlohmann::json::array();
  for (size_t i = 0; i < serverInfo.documentsInfo().size(); ++i) {
    nlohmann::json document = jsonFromDocument(*serverInfo.documentsInfo()[i]);
    document["active"] = i == active;
    documents.push_back(std::move(document));
  }
  return {{"device", serverInfo.deviceName()},
          {"productName", serverInfo.productName()},
          {"deviceType", serverInfo.deviceType()},
          {"activeIndex", active < serverInfo.documentsInfo().size() ? nlohmann::json(active) : nullptr},
          {"documents", std::move(documents)}};
}

nlohmann::json
QVEventPrinter::jsonFromServers(const std::vector<std::shared_ptr<QVHandoffServerInfo>>& serversInfo) {
  nlohmann::json servers = nlohmann::json::array();
  for (const auto& serverInfo : serversInfo)
    servers.push_back(jsonFromServer(*serverInfo));
  return servers;
}
