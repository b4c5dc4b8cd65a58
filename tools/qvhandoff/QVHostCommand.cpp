// SPDX-License-Identifier: MIT
#include "QVHostCommand.h"

#include "QVEscapedText.h"

#include <fmt/format.h>

#include <array>
#include <cctype>
#include <string_view>

namespace {

struct Syntax {
  const char* word;
  QVHostCommand::Verb verb;
  const char* arguments;
  size_t count;
};

constexpr std::array kSyntax = {
    Syntax{"open", QVHostCommand::Verb::Open, "FILE", 1},
    Syntax{"close", QVHostCommand::Verb::Close, "FILE", 1},
    Syntax{"activate", QVHostCommand::Verb::Activate, "N|FILE", 1},
    Syntax{"peers", QVHostCommand::Verb::Peers, "", 0},
    Syntax{"get", QVHostCommand::Verb::Get, "DEVICE PATH", 2},
    Syntax{"save-back", QVHostCommand::Verb::SaveBack, "COPY", 1},
    Syntax{"mark-modified", QVHostCommand::Verb::MarkModified, "COPY", 1},
    Syntax{"force-save-back", QVHostCommand::Verb::ForceSaveBack, "FILE", 1},
    Syntax{"cancel", QVHostCommand::Verb::Cancel, "COPY|PATH", 1},
    Syntax{"quit", QVHostCommand::Verb::Quit, "", 0},
};

bool isBlank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}

// The word at the start of `text`, quotes removed and escapes undone; `text` is left after it. None when
// a quote is left open.
std::optional<std::string> takeWord(std::string_view& text) {
  std::string raw;
  bool quoted = false;
  size_t i = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      raw += c;
      raw += text[++i];
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && isBlank(c)) {
      break;
    } else {
      raw += c;
    }
  }
  if (quoted) return std::nullopt;
  text.remove_prefix(i);
  return QVEscapedText::unescape(raw);
}

// The rest of a line as one argument: one quoted word when that is all there is, else the text as it
// stands, so that `My "Draft".txt` needs no quotes either.
std::string restArgument(std::string_view rest) {
  if (rest.front() == '"') {
    std::string_view after = rest;
    auto word = takeWord(after);
    if (word && trimmed(after).empty()) return *word;
  }
  return QVEscapedText::unescape(rest);
}

} // namespace

std::optional<QVHostCommand> QVHostCommand::parse(const std::string& line, std::string* error) {
  error->clear();
  std::string_view rest = trimmed(line);
  if (rest.empty()) return std::nullopt;
  size_t verbEnd = 0;
  while (verbEnd < rest.size() && !isBlank(rest[verbEnd]))
    ++verbEnd;
  const std::string_view verbWord = rest.substr(0, verbEnd);
  rest = trimmed(rest.substr(verbEnd));

  for (const auto& syntax : kSyntax) {
    if (verbWord != syntax.word) continue;
    const std::string usageLine = fmt::format("usage: {} {}", syntax.word, syntax.arguments);
    QVHostCommand command{syntax.verb, {}};
    for (size_t i = 0; i + 1 < syntax.count && !rest.empty(); ++i) {
      auto word = takeWord(rest);
      if (!word) {
        *error = "unbalanced quotes";
        return std::nullopt;
      }
      command.arguments.push_back(std::move(*word));
      rest = trimmed(rest);
    }
    if (syntax.count > 0 && !rest.empty())
      command.arguments.push_back(restArgument(rest));
    else if (syntax.count == 0 && !rest.empty())
      command.arguments.emplace_back(rest);
    if (command.arguments.size() != syntax.count) {
      *error = usageLine;
      return std::nullopt;
    }
    return command;
  }
  *error = fmt::format("unknown command \"{}\" ({})", verbWord, usage());
  return std::nullopt;
}

const char* QVHostCommand::name(Verb verb) {
  for (const auto& syntax : kSyntax) {
    if (syntax.verb == verb) return syntax.word;
  }
  return "";
}

const char* QVHostCommand::usage() {
  return "commands: open FILE | close FILE | activate N|FILE | peers | get DEVICE PATH | save-back COPY | "
         "mark-modified COPY | force-save-back FILE | cancel COPY|PATH | quit";
}
