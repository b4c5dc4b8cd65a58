// SPDX-License-Identifier: MIT
// The exit statuses a script tells failures apart by, for every failure found before the network is
// joined, and the words of a failed transfer.

#include "QVOneShotCommands.h"
#include "QVErrorText.h"
#include "QVEscapedText.h"
#include "QVExitStatus.h"
#include "QVHostOptions.h"
#include "support/QVPrivateCachesEnvironment.h"

#include "Foundation/QVFileOperations.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffMetaStorage.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <sstream>

namespace {

// stdout of one call, with the exit status.
struct Outcome {
  int status = -1;
  std::string out;
};

} // namespace

class QVOneShotCommandsTest : public ::testing::Test {
protected:
  QVOneShotCommandsTest() {
    unsetenv("QVHANDOFF_CONTAINER");
    QVWriteFile(plainFile_, QVTestBytes(10));
  }

  static std::variant<QVHostOptions, int> options(std::vector<std::string> words) {
    words.insert(words.begin(), "qvhandoff");
    std::vector<const char*> argv;
    for (const auto& word : words)
      argv.push_back(word.c_str());
    return QVHostOptions::parse(static_cast<int>(argv.size()), argv.data());
  }

  // Parses `words` and runs the one-shot command they name.
  static Outcome run(const std::vector<std::string>& words) {
    auto parsed = options(words);
    if (const int* status = std::get_if<int>(&parsed)) return {*status, {}};
    const auto& o = std::get<QVHostOptions>(parsed);
    std::ostringstream out;
    auto* saved = std::cout.rdbuf(out.rdbuf());
    Outcome result;
    switch (o.command) {
    case QVHostOptions::Command::Init:
      result.status = QVOneShotCommands::init(o);
      break;
    case QVHostOptions::Command::Peers:
      result.status = QVOneShotCommands::peers(o);
      break;
    case QVHostOptions::Command::Get:
      result.status = QVOneShotCommands::get(o);
      break;
    case QVHostOptions::Command::SaveBack:
      result.status = QVOneShotCommands::saveBack(o);
      break;
    case QVHostOptions::Command::MarkModified:
      result.status = QVOneShotCommands::markModified(o);
      break;
    case QVHostOptions::Command::Info:
      result.status = QVOneShotCommands::info(o);
      break;
    case QVHostOptions::Command::Serve:
      break;
    }
    std::cout.rdbuf(saved);
    result.out = out.str();
    return result;
  }

  std::string keyFile() const { return (container_.path() / QVHandoffMetaFileName).string(); }

  QVTemporaryFolder container_;
  QVTemporaryFolder files_;
  std::string plainFile_ = files_.file("plain.txt");
};

TEST_F(QVOneShotCommandsTest, UsageErrorsExitTwoAndHelpExitsZero) {
  EXPECT_EQ(std::get<int>(options({})), QVExitCode(QVExitStatus::Usage)) << "no subcommand";
  EXPECT_EQ(std::get<int>(options({"fetch"})), QVExitCode(QVExitStatus::Usage));
  EXPECT_EQ(std::get<int>(options({"get", "--container", container_.path(), "host-A"})),
            QVExitCode(QVExitStatus::Usage))
      << "PATH missing";
  EXPECT_EQ(std::get<int>(options({"peers"})), QVExitCode(QVExitStatus::Usage)) << "no container";
  EXPECT_EQ(std::get<int>(options({"--container", container_.path(), "serve", "--port", "70000"})),
            QVExitCode(QVExitStatus::Usage));
  EXPECT_EQ(std::get<int>(options({"peers", "--help"})), QVExitCode(QVExitStatus::Success));

  // The shared options work on either side of the subcommand, and the flags set the level.
  auto parsed = options({"peers", "--container", container_.path(), "--port", "4567", "-q", "--json"});
  ASSERT_TRUE(std::holds_alternative<QVHostOptions>(parsed));
  const auto& o = std::get<QVHostOptions>(parsed);
  EXPECT_EQ(o.container, container_.path());
  EXPECT_EQ(o.port, 4567);
  EXPECT_EQ(o.logLevel, spdlog::level::err);
  EXPECT_EQ(o.json, true);
  parsed = options({"--container", container_.path(), "serve", "--no-input", "-vv"});
  ASSERT_TRUE(std::holds_alternative<QVHostOptions>(parsed));
  EXPECT_FALSE(std::get<QVHostOptions>(parsed).readInput);
  EXPECT_EQ(std::get<QVHostOptions>(parsed).logLevel, spdlog::level::debug);
}

TEST_F(QVOneShotCommandsTest, OnlyInitMakesAKeyAndTheOthersSayThereIsNone) {
  const std::string folder = container_.path();
  for (const std::vector<std::string>& words : {std::vector<std::string>{"peers", "--container", folder},
                                                {"get", "--container", folder, "host-A", "/a.txt"}}) {
    EXPECT_EQ(run(words).status, QVExitCode(QVExitStatus::NotSetUp)) << words[0];
    EXPECT_FALSE(QVFileExists(keyFile())) << words[0] << " wrote a key";
  }
  EXPECT_EQ(run({"peers", "--container", files_.file("missing")}).status, QVExitCode(QVExitStatus::NotSetUp));

  EXPECT_EQ(run({"init", "--container", folder}).status, QVExitCode(QVExitStatus::Success));
  ASSERT_TRUE(QVFileExists(keyFile()));
  const QVData key = QVReadFile(keyFile());
  EXPECT_FALSE(key.empty());
  // A second init keeps the key the other devices already have.
  EXPECT_EQ(run({"init", "--container", folder}).status, QVExitCode(QVExitStatus::Success));
  EXPECT_EQ(QVReadFile(keyFile()), key);
}

TEST_F(QVOneShotCommandsTest, AFileThatIsNoCopyExitsFourBeforeJoiningTheNetwork) {
  // The container has no key either: the copy is looked at first, so the answer is about the copy.
  const std::string folder = container_.path();
  for (const char* command : {"save-back", "mark-modified", "info"}) {
    EXPECT_EQ(run({command, "--container", folder, plainFile_}).status, QVExitCode(QVExitStatus::NotACopy))
        << command;
    EXPECT_EQ(run({command, "--container", folder, files_.file("missing.txt")}).status,
              QVExitCode(QVExitStatus::NotACopy))
        << command;
  }
  EXPECT_FALSE(QVFileExists(keyFile()));
}

TEST_F(QVOneShotCommandsTest, InfoOfACopyWhosePathIsNotUTF8PrintsItEscaped) {
  const std::string copy = files_.file("Caf\xe9 \\ copy.txt");
  QVWriteFile(copy, QVTestBytes(3));
  auto source = QVHandoffDocumentInfo::make();
  source->setFilePath("/home/a/Caf\xc3\xa9.txt");
  source->setDeviceName("host-A");
  source->setProductName("Host A");
  source->setFileSize(3);
  source->setFileModificationDate(std::chrono::system_clock::now());
  source->setDeviceType(3);
  source->setContentType("public.plain-text");
  QVHandoffManager::addDocumentInfo(*source, copy);

  const Outcome info = run({"info", copy});
  ASSERT_EQ(info.status, QVExitCode(QVExitStatus::Success));
  const auto object = nlohmann::json::parse(info.out, nullptr, false);
  ASSERT_FALSE(object.is_discarded()) << info.out;
  EXPECT_EQ(QVEscapedText::unescape(object["copy"].get<std::string>()), copy);
  EXPECT_EQ(QVEscapedText::unescape(object["path"].get<std::string>()), "/home/a/Caf\xc3\xa9.txt");
  EXPECT_EQ(object["device"], "host-A");
}

TEST_F(QVOneShotCommandsTest, AFailedTransferReadsAsWords) {
  const QVError refused{QVURLErrorDomain, QVURLError::CannotConnectToHost, {}};
  EXPECT_EQ(QVErrorText::sentence(refused, "hand off /a.txt", "edits-a", "10.1.2.3:4567"),
            "could not connect to edits-a at 10.1.2.3:4567: connection refused");
  const QVError status{
      QVURLErrorDomain, QVURLError::BadServerResponse, {{QVHTTPStatusCodeErrorKey, int64_t{500}}}};
  EXPECT_EQ(QVErrorText::sentence(status, "save back /c.txt", "edits-a", ""),
            "could not save back /c.txt: edits-a refused it (HTTP status 500)");
  for (const int64_t code : {QVURLError::Cancelled, QVURLError::TimedOut, QVURLError::CannotFindHost,
                             QVURLError::NetworkConnectionLost, int64_t{-1}}) {
    const std::string text =
        QVErrorText::sentence({QVURLErrorDomain, code, {}}, "hand off /a", "edits-a", "");
    EXPECT_EQ(text.find("Domain"), std::string::npos) << text;
    EXPECT_EQ(text.find(std::to_string(code)), std::string::npos) << text;
  }
  EXPECT_EQ(QVErrorText::hostAndPort("http://10.1.2.3:4567"), "10.1.2.3:4567");
  EXPECT_EQ(QVErrorText::hostAndPort("http://[fe80::1%25eth0]:80/x"), "[fe80::1%25eth0]:80");
}
