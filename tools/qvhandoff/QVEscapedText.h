// SPDX-License-Identifier: MIT
#pragma once
// The escaping that lets any path through the JSON output and back in on `serve`'s input: a backslash is
// written "\\" and each byte that is not part of valid UTF-8 "\xNN"; everything else is itself. It is
// what `printf '%b'` undoes in a shell.

#include <string>
#include <string_view>

class QVEscapedText {
public:
  static std::string escape(std::string_view text);
  // "\xNN" is that byte, a backslash before any other character is that character, a final one itself.
  static std::string unescape(std::string_view text);
  // The length of the valid UTF-8 sequence at the start of `text`, or 0.
  static size_t validSequenceLength(std::string_view text);
};
