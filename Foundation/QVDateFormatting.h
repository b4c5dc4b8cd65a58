// SPDX-License-Identifier: MIT
#pragma once
// The protocol's date text ("yyyy-MM-ddTHH:mm:ss.SSS", GMT, no zone designator), HTTP dates (RFC 1123)
// and the locale-tolerant number text used in query strings.

#include "Foundation/QVTypes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// 2016-03-01T09:05:07.042; milliseconds are truncated, never rounded up.
std::string QVFormatProtocolDate(QVDate date);
// Exactly the shape above; anything else (a zone suffix, missing milliseconds) gives none.
std::optional<QVDate> QVParseProtocolDate(std::string_view text);

// "Tue, 01 Mar 2016 09:05:07 GMT" (whole seconds).
std::string QVFormatHTTPDate(QVDate date);
std::optional<QVDate> QVParseHTTPDate(std::string_view text);

// Decimal integer text as "%llu" writes it; the current locale's grouping separators are skipped.
// Anything else gives none (readers take that as 0).
std::optional<uint64_t> QVParseUnsignedNumber(std::string_view text);
std::optional<int64_t> QVParseSignedNumber(std::string_view text);
// Decimal text with an optional fraction ("12.5"), for the point coordinates of a query string.
std::optional<double> QVParseDoubleNumber(std::string_view text);
