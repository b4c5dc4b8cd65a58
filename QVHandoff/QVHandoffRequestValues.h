// SPDX-License-Identifier: MIT
#pragma once
// What the server's endpoints read from decrypted request objects and query strings, and the type they
// announce for a document. Peers send whatever they like: a value of the wrong kind is absent, never an
// exception.

#include "Foundation/QVTypes.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace QVHandoffRequestValues {

// A string value of a request object; anything else (absent, another type, not an object) is absent.
std::optional<std::string> stringValue(const nlohmann::json& object, const char* key);
// A scalar passed on to the host as received; arrays, objects and null count as absent.
std::optional<QVValue> scalarValue(const nlohmann::json& object, const char* key);
// A query number; anything that does not parse is 0.
uint64_t numberFromQueryValue(const std::string& text);
// "{12.5, 300}"; anything else is the origin.
QVPoint pointFromQueryValue(std::string_view text);
// The type a file name suggests; empty when its extension tells nothing.
std::string contentTypeForPath(const std::string& path);

// What a mark-as-modified request says.
struct MarkAsModifiedRequest {
  std::string filePath;
  std::string remoteFilePath;
  std::optional<QVDate> remoteFileModificationDate;
  std::string remoteDeviceName;
  QVValue remoteDeviceType;
};
// The request bodies, decrypted with `AES256Key` and read; none (logged) when a field is missing.
std::optional<MarkAsModifiedRequest> markAsModifiedRequestFromData(const QVData& body,
                                                                   const QVData& AES256Key);
std::optional<std::string> forceRemoteSaveBackFilePathFromData(const QVData& body, const QVData& AES256Key);

} // namespace QVHandoffRequestValues
