// SPDX-License-Identifier: MIT
#include "Foundation/QVDateFormatting.h"
#include "support/QVTestSupport.h"

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <random>

using namespace std::chrono;

namespace {

// The C library's own rendering, to check the calendar arithmetic against.
std::string strftimeUTC(QVDate date, const char* format) {
  const time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(date));
  tm broken{};
  gmtime_r(&seconds, &broken);
  char text[64];
  return std::string(text, strftime(text, sizeof text, format, &broken));
}

template <class Parser> void expectRefused(Parser parse, std::initializer_list<const char*> texts) {
  for (const char* text : texts)
    EXPECT_FALSE(parse(text)) << text;
}

} // namespace

TEST(QVDateFormattingTest, ProtocolAndHTTPDatesRoundTripAndRefuseOtherShapes) {
  const QVDate date = sys_days{2016y / 3 / 1} + 9h + 5min + 7s + 42ms + 999us;
  EXPECT_EQ(QVFormatProtocolDate(date), "2016-03-01T09:05:07.042") << "milliseconds are cut, never rounded";
  EXPECT_EQ(QVParseProtocolDate("2016-03-01T09:05:07.042"), floor<milliseconds>(date));
  EXPECT_EQ(QVFormatProtocolDate(QVDate{} - 1us), "1969-12-31T23:59:59.999");
  EXPECT_EQ(QVFormatHTTPDate(system_clock::from_time_t(784111777) + 600ms), "Sun, 06 Nov 1994 08:49:37 GMT");

  std::mt19937_64 random(7);
  for (int i = 0; i < 200; ++i) {
    const QVDate any = QVDate{} + milliseconds(random() % 8'000'000'000'000ULL);
    const std::string text = QVFormatProtocolDate(any), http = QVFormatHTTPDate(any);
    EXPECT_EQ(text.substr(0, 19), strftimeUTC(any, "%Y-%m-%dT%H:%M:%S"));
    EXPECT_EQ(QVParseProtocolDate(text), any) << text;
    EXPECT_EQ(http, strftimeUTC(any, "%a, %d %b %Y %H:%M:%S GMT"));
    EXPECT_EQ(QVParseHTTPDate(http), floor<seconds>(any)) << http;
  }

  expectRefused(QVParseProtocolDate,
                {"2016-03-01T09:05:07.042Z", "2016-03-01T09:05:07.042+0000", "2016-03-01T09:05:07",
                 "2016-03-01T09:05:07.42", "2016-03-01 09:05:07.042", "2016-02-30T09:05:07.042",
                 "2016-03-01T24:00:00.000", "20a6-03-01T09:05:07.042", ""});
  expectRefused(QVParseHTTPDate, {"Sun, 06 Nov 1994 08:49:37 UTC", "Sunday, 06-Nov-94 08:49:37 GMT",
                                  "Sun Nov  6 08:49:37 1994", "Sun, 31 Feb 1994 08:49:37 GMT"});
}

TEST(QVDateFormattingTest, NumbersAreStrictDecimalText) {
  EXPECT_EQ(QVParseUnsignedNumber("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(QVParseSignedNumber("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(QVParseDoubleNumber("-12.5"), -12.5);
  expectRefused(QVParseUnsignedNumber,
                {"", "18446744073709551616", "-1", "+1", " 1", "1 ", "12a", "1.5", "1,234"});
  expectRefused(QVParseSignedNumber, {"-", "--1", "9223372036854775808", "0x10"});
  expectRefused(QVParseDoubleNumber, {"", "12,5", "inf", "nan", "1e400", "12.5x"});
}

TEST(QVDateFormattingTest, GroupingSeparatorsOfTheCurrentLocaleAreSkipped) {
  // Build machines often carry no locale with grouping; compile one privately when the tool is there.
  QVTemporaryFolder locales;
  const std::string build = "localedef -i de_DE -f UTF-8 " + locales.file("de_DE.UTF-8") + " >/dev/null 2>&1";
  if (!setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
    setenv("LOCPATH", locales.path().c_str(), 1);
    if (std::system(build.c_str()) == -1 || !setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
      unsetenv("LOCPATH");
      GTEST_SKIP() << "no locale with a grouping separator could be had";
    }
  }
  EXPECT_EQ(QVParseUnsignedNumber("1.234.567"), 1234567u);
  EXPECT_EQ(QVParseSignedNumber("-9.876"), -9876);
  expectRefused(QVParseUnsignedNumber, {".123", "123.", "1,234", "1 234"});
  EXPECT_EQ(QVParseDoubleNumber("12.5"), 12.5) << "point text is written and read with a point everywhere";
  setlocale(LC_NUMERIC, "C");
  unsetenv("LOCPATH");
}
