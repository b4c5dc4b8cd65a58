// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffRequestValues.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMIMEType.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

#include <cstdint>
#include <filesystem>

// The request readers' lines are the connection's: hosts and tests match them by that operation.
QV_LOG_SOURCE_OF("QVHandoff/QVHandoffHTTPConnection", "QVHandoffHTTPConnection")

namespace QVHandoffRequestValues {

namespace {

constexpr const char* kUnknownMIMEType = "application/octet-stream";

} // namespace

std::optional<std::string> stringValue(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) return std::nullopt;
  auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

std::optional<QVValue> scalarValue(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) return std::nullopt;
  auto found = object.find(key);
  if (found == object.end()) return std::nullopt;
  const nlohmann::json& value = *found;
  if (value.is_string()) return QVValue(value.get<std::string>());
  if (value.is_boolean()) return QVValue(value.get<bool>());
  if (value.is_number_unsigned() && value.get<uint64_t>() > uint64_t(INT64_MAX)) {
    return QVValue(value.get<uint64_t>());
  }
  if (value.is_number_integer()) return QVValue(value.get<int64_t>());
  if (value.is_number_float()) return QVValue(value.get<double>());
  return std::nullopt;
}

uint64_t numberFromQueryValue(const std::string& text) {
  return QVHandoffMessageCodec::numberFormatter().numberFromString(text).value_or(0);
}

QVPoint pointFromQueryValue(std::string_view text) {
  if (text.size() < 2 || text.front() != '{' || text.back() != '}') return {};
  text = text.substr(1, text.size() - 2);
  const size_t comma = text.find(',');
  if (comma == std::string_view::npos) return {};
  auto trimmed = [](std::string_view part) {
    while (!part.empty() && part.front() == ' ')
      part.remove_prefix(1);
    while (!part.empty() && part.back() == ' ')
      part.remove_suffix(1);
    return part;
  };
  const auto x = QVParseDoubleNumber(trimmed(text.substr(0, comma)));
  const auto y = QVParseDoubleNumber(trimmed(text.substr(comma + 1)));
  if (!x || !y) return {};
  return {*x, *y};
}

std::string contentTypeForPath(const std::string& path) {
  if (std::filesystem::path(path).extension().empty()) return {};
  std::string type = QVMIMETypeForPath(path);
  return type == kUnknownMIMEType ? std::string() : type;
}

std::optional<MarkAsModifiedRequest> markAsModifiedRequestFromData(const QVData& body,
                                                                   const QVData& AES256Key) {
  const auto object = QVHandoffMessageCodec::JSONObjectFromData(body, AES256Key);
  if (!object) {
    QV_LOG_ERROR("Couldn't decrypt mark as modified file request body");
    return std::nullopt;
  }
  const auto filePath = stringValue(*object, "filePath");
  if (!filePath) {
    QV_LOG_ERROR("Mark as modified file path not found in request");
    return std::nullopt;
  }
  const auto remoteFilePath = stringValue(*object, "remoteFilePath");
  if (!remoteFilePath) {
    QV_LOG_ERROR("Mark as modified remote file path not found in request");
    return std::nullopt;
  }
  const auto dateText = stringValue(*object, "remoteFileModificationDate");
  if (!dateText) {
    QV_LOG_ERROR("Mark as modified remote file modification date not found in request");
    return std::nullopt;
  }
  const auto remoteDeviceName = stringValue(*object, "remoteDeviceName");
  if (!remoteDeviceName) {
    QV_LOG_ERROR("Mark as modified remote device name not found in request");
    return std::nullopt;
  }
  const auto remoteDeviceType = scalarValue(*object, "remoteDeviceType");
  if (!remoteDeviceType) {
    QV_LOG_ERROR("Mark as modified remote device type not found in request");
    return std::nullopt;
  }
  // A date that does not parse is not refused: the notice goes out without it.
  return MarkAsModifiedRequest{*filePath, *remoteFilePath,
                               QVHandoffMessageCodec::dateFormatter().dateFromString(*dateText),
                               *remoteDeviceName, *remoteDeviceType};
}

std::optional<std::string> forceRemoteSaveBackFilePathFromData(const QVData& body, const QVData& AES256Key) {
  const auto object = QVHandoffMessageCodec::JSONObjectFromData(body, AES256Key);
  if (!object) {
    QV_LOG_ERROR("Couldn't decrypt force remote save back file request body");
    return std::nullopt;
  }
  auto filePath = stringValue(*object, "filePath");
  if (!filePath) QV_LOG_ERROR("Force remote save back file path not found in request");
  return filePath;
}

} // namespace QVHandoffRequestValues
