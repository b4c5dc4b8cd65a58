// SPDX-License-Identifier: MIT
#include "Foundation/QVLog.h"

#include "QVHandoff/QVHandoffLog.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

namespace QVLogging {
namespace {

QVHandoffLogLevel hostLevel(spdlog::level::level_enum level) {
  switch (level) {
  case spdlog::level::trace:
    return QVHandoffLogLevel::Trace;
  case spdlog::level::debug:
    return QVHandoffLogLevel::Debug;
  case spdlog::level::info:
    return QVHandoffLogLevel::Info;
  case spdlog::level::warn:
    return QVHandoffLogLevel::Warning;
  case spdlog::level::off:
    return QVHandoffLogLevel::Off;
  default:
    return QVHandoffLogLevel::Error;
  }
}

// The host's end of the logging: its handler, or stderr.
class HostSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
  void setHandler(QVHandoffLogHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }

protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    if (handler_) {
      handler_(hostLevel(msg.level), std::string(msg.logger_name.data(), msg.logger_name.size()),
               msg.source.funcname ? msg.source.funcname : "",
               std::string(msg.payload.data(), msg.payload.size()));
      return;
    }
    spdlog::memory_buf_t line;
    if (stderrIsJournal()) {
      fmt::format_to(std::back_inserter(line), "<{}>", journalPriority(msg.level));
      journalFormatter_.format(msg, line);
    } else {
      formatter_->format(msg, line);
    }
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
  void flush_() override { std::fflush(stderr); }

private:
  // sd-daemon(3) priorities.
  static int journalPriority(spdlog::level::level_enum level) {
    switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return 7;
    case spdlog::level::info:
      return 6;
    case spdlog::level::warn:
      return 4;
    case spdlog::level::err:
      return 3;
    default:
      return 2;
    }
  }

  QVHandoffLogHandler handler_;
  // The journal stamps the time itself.
  spdlog::pattern_formatter journalFormatter_{"[%l] %n:%# %! %v"};
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<spdlog::logger>, std::less<>> loggers;
  std::shared_ptr<spdlog::sinks::dist_sink_mt> sink = std::make_shared<spdlog::sinks::dist_sink_mt>();
  std::shared_ptr<HostSink> host = std::make_shared<HostSink>();
  spdlog::level::level_enum level = spdlog::level::info;

  Registry() {
    // Lines go to stderr: stdout belongs to the host (the command line prints JSON there).
    host->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %n:%# %! %v");
    sink->add_sink(host);
    if (const char* text = std::getenv("QVHANDOFF_LOG_LEVEL")) {
      level = spdlog::level::from_str(text);
    }
  }
};

Registry& registry() {
  static Registry* shared = new Registry(); // never destroyed: loggers may log during static teardown
  return *shared;
}

} // namespace

std::shared_ptr<spdlog::logger> logger(const std::string& source) {
  Registry& reg = registry();
  std::lock_guard lock(reg.mutex);
  auto [at, added] = reg.loggers.try_emplace(source);
  if (added) {
    at->second = std::make_shared<spdlog::logger>(source, reg.sink);
    at->second->set_level(reg.level);
  }
  return at->second;
}

void setLevel(spdlog::level::level_enum level) {
  Registry& reg = registry();
  std::lock_guard lock(reg.mutex);
  reg.level = level;
  for (const auto& [source, each] : reg.loggers) {
    each->set_level(level);
  }
}

spdlog::level::level_enum level() {
  Registry& reg = registry();
  std::lock_guard lock(reg.mutex);
  return reg.level;
}

void addSink(std::shared_ptr<spdlog::sinks::sink> sink) {
  sink->set_pattern("[%l] %n:%# %! %v");
  registry().sink->add_sink(std::move(sink));
}

void removeSink(const std::shared_ptr<spdlog::sinks::sink>& sink) {
  registry().sink->remove_sink(sink);
}

bool stderrIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (!stream) return false;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return false;
  return status.st_dev == device && status.st_ino == inode;
}

std::string operationName(std::string_view pretty) {
  // Drop the parameter list, then the return type (the last space outside template brackets).
  if (auto paren = pretty.find('('); paren != std::string_view::npos) {
    pretty = pretty.substr(0, paren);
  }
  int depth = 0;
  size_t start = 0;
  for (size_t i = 0; i < pretty.size(); ++i) {
    if (pretty[i] == '<') ++depth;
    if (pretty[i] == '>') --depth;
    if (pretty[i] == ' ' && depth == 0) start = i + 1;
  }
  std::string name(pretty.substr(start));
  for (const std::string_view anonymous : {"{anonymous}::", "(anonymous namespace)::"}) {
    for (auto at = name.find(anonymous); at != std::string::npos; at = name.find(anonymous)) {
      name.erase(at, anonymous.size());
    }
  }
  return name;
}

std::string operationNameIn(std::string_view className, std::string_view prettyFunction) {
  const std::string name = operationName(prettyFunction);
  if (className.empty()) return name;
  const size_t scope = name.rfind("::");
  return fmt::format("{}::{}", className, scope == std::string::npos ? name : name.substr(scope + 2));
}

} // namespace QVLogging

void QVHandoffSetLogHandler(QVHandoffLogHandler handler) {
  QVLogging::registry().host->setHandler(std::move(handler));
}

void QVHandoffSetLogLevel(QVHandoffLogLevel level) {
  static constexpr spdlog::level::level_enum kLevels[] = {spdlog::level::trace, spdlog::level::debug,
                                                          spdlog::level::info,  spdlog::level::warn,
                                                          spdlog::level::err,   spdlog::level::off};
  QVLogging::setLevel(kLevels[static_cast<int>(level)]);
}

QVHandoffLogLevel QVHandoffLogLevelInEffect() {
  return QVLogging::hostLevel(QVLogging::level());
}
