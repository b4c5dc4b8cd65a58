// SPDX-License-Identifier: MIT
#include "Foundation/QVDateFormatting.h"

#include <fmt/format.h>

#include <langinfo.h>

#include <array>
#include <charconv>
#include <cmath>

namespace {

using namespace std::chrono;

constexpr std::array<const char*, 7> kWeekdayNames = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonthNames = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct QVBrokenDownTime {
  year_month_day day;
  hh_mm_ss<milliseconds> time;
  weekday dayOfWeek;
};

QVBrokenDownTime breakDown(QVDate date) {
  // floor, not duration_cast: a date just before the epoch must not round towards it.
  const auto sinceEpoch = floor<milliseconds>(date.time_since_epoch());
  const sys_days day{floor<days>(sinceEpoch)};
  return {year_month_day{day}, hh_mm_ss<milliseconds>{sinceEpoch - day.time_since_epoch()}, weekday{day}};
}

// Exactly `count` ASCII digits at `text[at]`.
std::optional<int> digitsAt(std::string_view text, size_t at, size_t count) {
  if (at + count > text.size()) return std::nullopt;
  int value = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

std::optional<QVDate> makeDate(int y, int mo, int d, int h, int mi, int s, int ms) {
  const year_month_day date{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
  if (!date.ok() || h > 23 || mi > 59 || s > 59) return std::nullopt;
  const auto sinceEpoch =
      sys_days{date}.time_since_epoch() + hours{h} + minutes{mi} + seconds{s} + milliseconds{ms};
  return QVDate{duration_cast<QVDate::duration>(sinceEpoch)};
}

template <size_t N>
std::optional<size_t> nameIndex(const std::array<const char*, N>& names, std::string_view text) {
  for (size_t i = 0; i < N; ++i) {
    if (text == names[i]) return i;
  }
  return std::nullopt;
}

// The digits of `text` with the current locale's grouping separator removed from between them; none when
// anything else is in the way.
std::optional<std::string> ungroupedDigits(std::string_view text) {
  // nl_langinfo reads the thread's locale without the shared buffer localeconv() fills.
  const std::string_view separator = nl_langinfo(THOUSEP);
  std::string digits;
  size_t at = 0;
  while (at < text.size()) {
    if (text[at] >= '0' && text[at] <= '9') {
      digits.push_back(text[at++]);
    } else if (!separator.empty() && !digits.empty() && text.substr(at, separator.size()) == separator &&
               at + separator.size() < text.size()) {
      at += separator.size();
    } else {
      return std::nullopt;
    }
  }
  if (digits.empty()) return std::nullopt;
  return digits;
}

} // namespace

std::string QVFormatProtocolDate(QVDate date) {
  const QVBrokenDownTime parts = breakDown(date);
  return fmt::format("{:04d}-{:02d}-{:02d}T{:02d}:{:02d}:{:02d}.{:03d}", static_cast<int>(parts.day.year()),
                     static_cast<unsigned>(parts.day.month()), static_cast<unsigned>(parts.day.day()),
                     parts.time.hours().count(), parts.time.minutes().count(), parts.time.seconds().count(),
                     parts.time.subseconds().count());
}

std::optional<QVDate> QVParseProtocolDate(std::string_view text) {
  // yyyy-MM-ddTHH:mm:ss.SSS
  if (text.size() != 23 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != '.') {
    return std::nullopt;
  }
  const auto y = digitsAt(text, 0, 4), mo = digitsAt(text, 5, 2), d = digitsAt(text, 8, 2);
  const auto h = digitsAt(text, 11, 2), mi = digitsAt(text, 14, 2), s = digitsAt(text, 17, 2);
  const auto ms = digitsAt(text, 20, 3);
  if (!y || !mo || !d || !h || !mi || !s || !ms) return std::nullopt;
  return makeDate(*y, *mo, *d, *h, *mi, *s, *ms);
}

std::string QVFormatHTTPDate(QVDate date) {
  const QVBrokenDownTime parts = breakDown(date);
  return fmt::format("{}, {:02d} {} {:04d} {:02d}:{:02d}:{:02d} GMT",
                     kWeekdayNames[parts.dayOfWeek.c_encoding()], static_cast<unsigned>(parts.day.day()),
                     kMonthNames[static_cast<unsigned>(parts.day.month()) - 1],
                     static_cast<int>(parts.day.year()), parts.time.hours().count(),
                     parts.time.minutes().count(), parts.time.seconds().count());
}

std::optional<QVDate> QVParseHTTPDate(std::string_view text) {
  // Sun, 06 Nov 1994 08:49:37 GMT
  if (text.size() != 29 || text.substr(3, 2) != ", " || text[7] != ' ' || text[11] != ' ' ||
      text[16] != ' ' || text[19] != ':' || text[22] != ':' || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  const auto month = nameIndex(kMonthNames, text.substr(8, 3));
  if (!nameIndex(kWeekdayNames, text.substr(0, 3)) || !month) return std::nullopt;
  const auto d = digitsAt(text, 5, 2), y = digitsAt(text, 12, 4);
  const auto h = digitsAt(text, 17, 2), mi = digitsAt(text, 20, 2), s = digitsAt(text, 23, 2);
  if (!d || !y || !h || !mi || !s) return std::nullopt;
  return makeDate(*y, static_cast<int>(*month) + 1, *d, *h, *mi, *s, 0);
}

std::optional<uint64_t> QVParseUnsignedNumber(std::string_view text) {
  const auto digits = ungroupedDigits(text);
  if (!digits) return std::nullopt;
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(digits->data(), digits->data() + digits->size(), value);
  if (error != std::errc() || end != digits->data() + digits->size()) return std::nullopt;
  return value;
}

std::optional<int64_t> QVParseSignedNumber(std::string_view text) {
  const bool negative = !text.empty() && text.front() == '-';
  const auto digits = ungroupedDigits(negative ? text.substr(1) : text);
  if (!digits) return std::nullopt;
  const std::string signedDigits = negative ? "-" + *digits : *digits;
  int64_t value = 0;
  const auto [end, error] =
      std::from_chars(signedDigits.data(), signedDigits.data() + signedDigits.size(), value);
  if (error != std::errc() || end != signedDigits.data() + signedDigits.size()) return std::nullopt;
  return value;
}

std::optional<double> QVParseDoubleNumber(std::string_view text) {
  double value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}
