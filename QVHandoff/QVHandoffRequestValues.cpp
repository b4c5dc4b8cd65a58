// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffRequestValues.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVMIMEType.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

#include <cstdint>
#include <filesystem>

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

} // namespace QVHandoffRequestValues
