// SPDX-License-Identifier: MIT
// The lines an independent client writes on `serve`'s input, and the escaping that brings any path from
// the JSON output back in.

#include "QVHostCommand.h"
#include "QVEscapedText.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using Verb = QVHostCommand::Verb;

struct Parsed {
  std::optional<QVHostCommand> command;
  std::string error;
};

Parsed parse(const std::string& line) {
  Parsed parsed;
  parsed.command = QVHostCommand::parse(line, &parsed.error);
  return parsed;
}

} // namespace

class QVHostCommandTest : public ::testing::Test {
protected:
  static void expectCommand(const std::string& line, Verb verb, const std::vector<std::string>& arguments) {
    const auto parsed = parse(line);
    ASSERT_TRUE(parsed.command) << line << ": " << parsed.error;
    EXPECT_EQ(parsed.command->verb, verb) << line;
    EXPECT_EQ(parsed.command->arguments, arguments) << line;
    EXPECT_TRUE(parsed.error.empty()) << line;
  }
};

TEST_F(QVHostCommandTest, APathTakesTheRestOfTheLineQuotedOrNot) {
  expectCommand("mark-modified /home/me/My Report.pdf", Verb::MarkModified, {"/home/me/My Report.pdf"});
  expectCommand("mark-modified \"/home/me/My Report.pdf\"", Verb::MarkModified, {"/home/me/My Report.pdf"});
  // Runs of blanks inside are the file's; those around the path and a CRLF client's \r are not.
  expectCommand("  save-back   /tmp/a  b.txt \r", Verb::SaveBack, {"/tmp/a  b.txt"});
  expectCommand("open /tmp/My \"Draft\" (2).txt", Verb::Open, {"/tmp/My \"Draft\" (2).txt"});
  // More than one quoted word is a name with quotes in it.
  expectCommand("close \"/tmp/a\" \"b\"", Verb::Close, {"\"/tmp/a\" \"b\""});
  expectCommand("cancel \"/tmp/ends with blank \"", Verb::Cancel, {"/tmp/ends with blank "});
  expectCommand("force-save-back /tmp/tab\there", Verb::ForceSaveBack, {"/tmp/tab\there"});
  expectCommand("activate 2", Verb::Activate, {"2"});
  expectCommand("peers", Verb::Peers, {});
  expectCommand("quit", Verb::Quit, {});
}

TEST_F(QVHostCommandTest, GetTakesAQuotableDeviceThenThePath) {
  expectCommand("get host-A /docs/Plan 2026.txt", Verb::Get, {"host-A", "/docs/Plan 2026.txt"});
  expectCommand("get \"Anna's Laptop\" \"/docs/Plan 2026.txt\"", Verb::Get,
                {"Anna's Laptop", "/docs/Plan 2026.txt"});
  expectCommand("get Anna\\'s\\ Laptop /a", Verb::Get, {"Anna's Laptop", "/a"});
}

TEST_F(QVHostCommandTest, BadLinesSayWhyAndBlankLinesAreNothing) {
  for (const char* blank : {"", "   ", "\r", "\t "}) {
    const auto parsed = parse(blank);
    EXPECT_FALSE(parsed.command);
    EXPECT_TRUE(parsed.error.empty()) << "blank line \"" << blank << "\"";
  }
  EXPECT_EQ(parse("mark-modified").error, "usage: mark-modified COPY");
  EXPECT_EQ(parse("mark-modified   ").error, "usage: mark-modified COPY");
  EXPECT_EQ(parse("get host-A").error, "usage: get DEVICE PATH");
  EXPECT_EQ(parse("get \"host A /a").error, "unbalanced quotes");
  EXPECT_EQ(parse("quit now").error, "usage: quit ");
  EXPECT_EQ(parse("peers all").error, "usage: peers ");
  const auto unknown = parse("fetch /a");
  EXPECT_FALSE(unknown.command);
  EXPECT_EQ(unknown.error.rfind("unknown command \"fetch\"", 0), 0u) << unknown.error;
  // Verbs are exact words.
  EXPECT_FALSE(parse("OPEN /a").command);
  EXPECT_FALSE(parse("open/a").command);
}

TEST_F(QVHostCommandTest, AnyPathSurvivesTheJSONOutputAndComesBackAsInput) {
  const std::vector<std::string> paths = {
      "/plain/Report.pdf",
      "/latin1/Caf\xe9.txt",                   // not UTF-8
      "/mixed/\xc3\xa9t\xc3\xa9 \xff\xfe.pdf", // valid é, then invalid bytes
      "/back\\slash\\x41.txt",                 // looks like an escape already
      "/truncated/\xe2\x82",                   // a sequence cut short
      "/surrogate/\xed\xa0\x80",               // an encoded surrogate is not UTF-8 either
      "/overlong/\xc0\xaf",
      "/ends/with/backslash\\",
  };
  for (const auto& path : paths) {
    const std::string escaped = QVEscapedText::escape(path);
    // What the printer writes must be valid JSON text, and decoding it gives the escaped form back.
    const std::string text = nlohmann::json(escaped).dump();
    const auto decoded = nlohmann::json::parse(text, nullptr, false);
    ASSERT_FALSE(decoded.is_discarded()) << text;
    EXPECT_EQ(QVEscapedText::unescape(decoded.get<std::string>()), path) << text;
    // Fed back on the input, bare or quoted.
    const auto bare = parse("save-back " + escaped);
    ASSERT_TRUE(bare.command) << bare.error;
    EXPECT_EQ(bare.command->arguments.at(0), path) << escaped;
    const auto quoted = parse("get dev \"" + escaped + "\"");
    ASSERT_TRUE(quoted.command) << quoted.error;
    EXPECT_EQ(quoted.command->arguments.at(1), path) << escaped;
  }
  // Valid UTF-8 stays as it is, so ordinary paths read as they are.
  EXPECT_EQ(QVEscapedText::escape("/\xe6\x96\x87\xe6\x9b\xb8/\xf0\x9f\x93\x84 Notes.txt"),
            "/\xe6\x96\x87\xe6\x9b\xb8/\xf0\x9f\x93\x84 Notes.txt");
  EXPECT_EQ(QVEscapedText::escape("/Caf\xe9"), "/Caf\\xe9");
  EXPECT_EQ(QVEscapedText::unescape("\\x4"), "x4") << "a short escape is the character after the backslash";
}
