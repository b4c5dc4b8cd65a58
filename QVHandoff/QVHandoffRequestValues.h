#pragma once
// What the server's endpoints read from decrypted request objects, and the type they announce for a
// document. Peers send whatever they like: a value of the wrong kind is absent, never an exception.

#include "Foundation/QVTypes.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace QVHandoffRequestValues {

// A string value of a request object; anything else (absent, another type, not an object) is absent.
std::optional<std::string> stringValue(const nlohmann::json& object, const char* key);
// A scalar passed on to the host as received; arrays, objects and null count as absent.
std::optional<QVValue> scalarValue(const nlohmann::json& object, const char* key);
// The type a file name suggests; empty when its extension tells nothing.
std::string contentTypeForPath(const std::string& path);

} // namespace QVHandoffRequestValues
