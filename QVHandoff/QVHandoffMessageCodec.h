// SPDX-License-Identifier: MIT
#pragma once
// The encrypted message envelope: a JSON array or object, serialised compactly and encrypted in one piece.
// Also the protocol's date and number text. QVHandoffHTTPConnection's class operations forward here so
// that the client side does not depend on the server's connection class.

#include "Foundation/QVTypes.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

// "yyyy-MM-ddTHH:mm:ss.SSS" in GMT. A new one per use; it keeps no state.
class QVHandoffDateFormatter {
public:
  std::string stringFromDate(QVDate date) const;
  std::optional<QVDate> dateFromString(std::string_view text) const;
};

// Decimal integers as "%llu" writes them; reading skips the current locale's grouping separators.
class QVHandoffNumberFormatter {
public:
  std::string stringFromNumber(uint64_t number) const;
  std::optional<uint64_t> numberFromString(std::string_view text) const;
};

class QVHandoffMessageCodec {
public:
  static std::optional<QVData> dataFromJSONObject(const nlohmann::json& object,
                                                  const QVData& encryptedWithAES256Key);
  static std::optional<nlohmann::json> JSONObjectFromData(const QVData& data,
                                                          const QVData& encryptedWithAES256Key);
  static bool isSuccessResponseData(const QVData& data, const QVData& encryptedWithAES256Key);
  // [true]
  static nlohmann::json successMessage();
  static QVHandoffDateFormatter dateFormatter() { return {}; }
  static QVHandoffNumberFormatter numberFormatter() { return {}; }
};
