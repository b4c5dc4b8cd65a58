#include "QVHostCommand.h"

#include <fmt/format.h>

#include <array>
#include <cctype>

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

} // namespace

std::optional<std::vector<std::string>> QVHostCommand::split(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
      inWord = true;
    } else if (c == '"') {
      quoted = !quoted;
      inWord = true;
    } else if (!quoted && std::isspace(static_cast<unsigned char>(c))) {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (quoted) return std::nullopt;
  if (inWord) words.push_back(std::move(word));
  return words;
}

std::optional<QVHostCommand> QVHostCommand::parse(const std::string& line, std::string* error) {
  error->clear();
  auto words = split(line);
  if (!words) {
    *error = "unbalanced quotes";
    return std::nullopt;
  }
  if (words->empty()) return std::nullopt;
  for (const auto& syntax : kSyntax) {
    if (words->front() != syntax.word) continue;
    if (words->size() - 1 != syntax.count) {
      *error = fmt::format("usage: {} {}", syntax.word, syntax.arguments);
      return std::nullopt;
    }
    words->erase(words->begin());
    return QVHostCommand{syntax.verb, std::move(*words)};
  }
  *error = fmt::format("unknown command \"{}\" ({})", words->front(), usage());
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
