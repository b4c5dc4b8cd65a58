// SPDX-License-Identifier: MIT
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffLog.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/null_sink.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

QV_LOG_SOURCE("Tests/QVLogTest")

namespace {

struct Line {
  QVHandoffLogLevel level;
  std::string source, operation, message;
};

class QVLogTest : public ::testing::Test {
protected:
  void TearDown() override {
    QVHandoffSetLogHandler({});
    QVLogging::setLevel(previous_);
  }
  const spdlog::level::level_enum previous_ = QVLogging::level();
};

void logWarning(int value) {
  QV_LOG_WARN("Couldn't do it: {}", value);
}

TEST_F(QVLogTest, AHostHandlerGetsEachLineAndTheLibraryLeavesSpdlogAlone) {
  // A host's own logger, in spdlog's registry, at a level of its own.
  auto hostLogger = std::make_shared<spdlog::logger>("host", std::make_shared<spdlog::sinks::null_sink_mt>());
  hostLogger->set_level(spdlog::level::critical);
  spdlog::register_logger(hostLogger);

  std::vector<Line> lines;
  QVHandoffSetLogHandler([&](QVHandoffLogLevel level, const std::string& source, const std::string& operation,
                             const std::string& message) {
    lines.push_back({level, source, operation, message});
  });
  QVHandoffSetLogLevel(QVHandoffLogLevel::Debug);
  EXPECT_EQ(QVHandoffLogLevelInEffect(), QVHandoffLogLevel::Debug);
  logWarning(7);
  QV_LOG_DEBUG("debug {}", 1);
  QVHandoffSetLogLevel(QVHandoffLogLevel::Error);
  QV_LOG_WARN("filtered");

  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].level, QVHandoffLogLevel::Warning);
  EXPECT_EQ(lines[0].source, "Tests/QVLogTest");
  EXPECT_EQ(lines[0].operation, "logWarning");
  EXPECT_EQ(lines[0].message, "Couldn't do it: 7");
  EXPECT_EQ(lines[1].level, QVHandoffLogLevel::Debug);
  EXPECT_EQ(QVLogging::operationName("std::optional<std::vector<int> > QVX::f(int, char)"), "QVX::f");

  EXPECT_EQ(spdlog::get("Tests/QVLogTest"), nullptr) << "the library registered a logger with spdlog";
  EXPECT_EQ(hostLogger->level(), spdlog::level::critical) << "the library changed a host logger's level";
  spdlog::drop("host");
}

TEST_F(QVLogTest, WithoutAHandlerLinesGoToStderrWithJournalPrioritiesWhenItIsTheJournal) {
  char path[] = "/tmp/qvlogtestXXXXXX";
  const int file = mkstemp(path);
  ASSERT_GE(file, 0);
  const int savedStderr = dup(STDERR_FILENO);
  ASSERT_GE(savedStderr, 0);
  std::fflush(stderr);
  ASSERT_GE(dup2(file, STDERR_FILENO), 0);

  struct stat status {};
  ASSERT_EQ(fstat(file, &status), 0);
  setenv("JOURNAL_STREAM", fmt::format("{}:{}", status.st_dev, status.st_ino).c_str(), 1);
  const bool journal = QVLogging::stderrIsJournal();
  logWarning(1);
  setenv("JOURNAL_STREAM", fmt::format("{}:{}", status.st_dev, status.st_ino + 1).c_str(), 1);
  const bool otherStream = QVLogging::stderrIsJournal();
  logWarning(2);
  unsetenv("JOURNAL_STREAM");

  std::fflush(stderr);
  dup2(savedStderr, STDERR_FILENO);
  close(savedStderr);
  close(file);
  std::ifstream in(path);
  std::vector<std::string> written;
  for (std::string line; std::getline(in, line);)
    written.push_back(line);
  unlink(path);

  EXPECT_TRUE(journal);
  EXPECT_FALSE(otherStream) << "a stream that is not stderr was taken for the journal";
  ASSERT_EQ(written.size(), 2u);
  EXPECT_EQ(written[0].rfind("<4>[warning] Tests/QVLogTest:", 0), 0u) << written[0];
  EXPECT_NE(written[0].find("logWarning Couldn't do it: 1"), std::string::npos) << written[0];
  // Outside the journal a line starts with its time stamp.
  EXPECT_NE(written[1].find("[warning] Tests/QVLogTest:"), std::string::npos) << written[1];
  EXPECT_NE(written[1].front(), '<') << written[1];
}

} // namespace
