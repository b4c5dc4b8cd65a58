// SPDX-License-Identifier: MIT
#include "QVEscapedText.h"

#include <fmt/format.h>

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

} // namespace

size_t QVEscapedText::validSequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  size_t length = 0;
  // The smallest and largest second byte rule out overlong forms, surrogates and code points past U+10FFFF.
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (text.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

std::string QVEscapedText::escape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  while (!text.empty()) {
    const size_t length = validSequenceLength(text);
    if (length == 0) {
      escaped += fmt::format("\\x{:02x}", static_cast<unsigned char>(text.front()));
      text.remove_prefix(1);
      continue;
    }
    if (text.front() == '\\') escaped += '\\';
    escaped.append(text.substr(0, length));
    text.remove_prefix(length);
  }
  return escaped;
}

std::string QVEscapedText::unescape(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      plain += text[i];
      continue;
    }
    if (text[i + 1] == 'x' && i + 3 < text.size() && hexValue(text[i + 2]) >= 0 &&
        hexValue(text[i + 3]) >= 0) {
      plain += static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3]));
      i += 3;
      continue;
    }
    plain += text[++i];
  }
  return plain;
}
