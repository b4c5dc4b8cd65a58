#pragma once
// One line of `qvhandoff serve`'s input: a verb and its arguments. Words are split at blanks; a word with
// blanks is written in double quotes, and a backslash takes the next character as it is.

#include <optional>
#include <string>
#include <vector>

struct QVHostCommand {
  enum class Verb { Open, Close, Activate, Peers, Get, SaveBack, MarkModified, ForceSaveBack, Cancel, Quit };

  Verb verb = Verb::Quit;
  std::vector<std::string> arguments;

  // The command on `line`; none for a blank line, or with `error` set when the line is not a command.
  static std::optional<QVHostCommand> parse(const std::string& line, std::string* error);
  // The words of `line`; none when a quote is left open.
  static std::optional<std::vector<std::string>> split(const std::string& line);
  static const char* name(Verb verb);
  static const char* usage();
};
