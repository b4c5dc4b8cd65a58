// SPDX-License-Identifier: MIT
#pragma once
// HTTP header fields: names compare without regard to case, as on the wire.

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <string>
#include <string_view>

struct QVCaseInsensitiveLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
      return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
    });
  }
};

using QVHTTPHeaderFields = std::map<std::string, std::string, QVCaseInsensitiveLess>;

inline std::optional<std::string> QVHeaderFieldValue(const QVHTTPHeaderFields& fields,
                                                     std::string_view name) {
  const auto found = fields.find(name);
  if (found == fields.end()) return std::nullopt;
  return found->second;
}
