// SPDX-License-Identifier: MIT
#pragma once
// One line of `qvhandoff serve`'s input: a verb and its arguments. The last argument, a path for most
// verbs, takes the rest of the line, so a path with blanks needs no quotes; a word before it (the device
// of `get`) is quoted when it has blanks. A backslash escapes as QVEscapedText writes it.

#include <optional>
#include <string>
#include <vector>

struct QVHostCommand {
  enum class Verb { Open, Close, Activate, Peers, Get, SaveBack, MarkModified, ForceSaveBack, Cancel, Quit };

  Verb verb = Verb::Quit;
  std::vector<std::string> arguments;

  // The command on `line`; none for a blank line, or with `error` set when the line is not a command.
  static std::optional<QVHostCommand> parse(const std::string& line, std::string* error);
  static const char* name(Verb verb);
  static const char* usage();
};
