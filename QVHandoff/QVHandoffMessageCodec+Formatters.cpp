// SPDX-License-Identifier: MIT
// The formatters live apart from the codec so that code which only encodes messages does not link the date
// and number text of the platform layer.

#include "QVHandoff/QVHandoffMessageCodec.h"

#include "Foundation/QVDateFormatting.h"

#include <fmt/format.h>

std::string QVHandoffDateFormatter::stringFromDate(QVDate date) const {
  return QVFormatProtocolDate(date);
}

std::optional<QVDate> QVHandoffDateFormatter::dateFromString(std::string_view text) const {
  return QVParseProtocolDate(text);
}

std::string QVHandoffNumberFormatter::stringFromNumber(uint64_t number) const {
  return fmt::format("{}", number);
}

std::optional<uint64_t> QVHandoffNumberFormatter::numberFromString(std::string_view text) const {
  return QVParseUnsignedNumber(text);
}
