// SPDX-License-Identifier: MIT
#pragma once
// Per-class logging. Each source file names its logger once with QV_LOG_SOURCE("QVHandoff/QVHandoffManager");
// the macros then log with the line, the operation and a fmt-style message, formatting only when the
// level is enabled. Included by sources only, never by framework headers.

#include <spdlog/spdlog.h>

#include <memory>
#include <string>
#include <string_view>

namespace QVLogging {

// The logger for one source ("QVHandoff/QVHandoffManager"). All loggers write to one shared sink, whose
// level comes from QVHANDOFF_LOG_LEVEL (trace, debug, info, warning, error, off; default info). They are
// kept here, not in spdlog's registry, which belongs to the host.
std::shared_ptr<spdlog::logger> logger(const std::string& source);

// Sets the level of every logger of the library, present and future.
void setLevel(spdlog::level::level_enum level);
spdlog::level::level_enum level();

// Adds or removes a sink that sees every line of every logger (tests capture lines with it).
void addSink(std::shared_ptr<spdlog::sinks::sink> sink);
void removeSink(const std::shared_ptr<spdlog::sinks::sink>& sink);

// Whether stderr is connected to the journal (JOURNAL_STREAM names its device and inode): lines then
// start with the journal's "<N>" priority instead of a time stamp.
bool stderrIsJournal();

// "void QVHandoffManager::start(int)" -> "QVHandoffManager::start".
std::string operationName(std::string_view prettyFunction);
// ("QVHandoffManager", "void QVHandoffFileTags::add(int)") -> "QVHandoffManager::add"; an empty class name
// keeps the function's own scope.
std::string operationNameIn(std::string_view className, std::string_view prettyFunction);

} // namespace QVLogging

#define QV_LOG_SOURCE(source) QV_LOG_SOURCE_OF(source, "")

// For a unit that does one job of a class's operations as plain functions: its lines read as the class's
// own ("QVHandoffManager::addDocumentInfo"), so what a host or a test matches does not depend on the split.
#define QV_LOG_SOURCE_OF(source, className)                                                                  \
  namespace {                                                                                                \
  spdlog::logger& qvLogger() {                                                                               \
    static const std::shared_ptr<spdlog::logger> logger = QVLogging::logger(source);                         \
    return *logger;                                                                                          \
  }                                                                                                          \
  std::string qvOperation(std::string_view prettyFunction) {                                                 \
    return QVLogging::operationNameIn(className, prettyFunction);                                            \
  }                                                                                                          \
  }

#define QV_LOG_AT(lvl, ...)                                                                                  \
  do {                                                                                                       \
    spdlog::logger& qvLogger_ = qvLogger();                                                                  \
    if (qvLogger_.should_log(lvl)) {                                                                         \
      const std::string qvOperation_ = qvOperation(__PRETTY_FUNCTION__);                                     \
      qvLogger_.log(spdlog::source_loc{__FILE__, __LINE__, qvOperation_.c_str()}, lvl, __VA_ARGS__);         \
    }                                                                                                        \
  } while (0)

#define QV_LOG_DEBUG(...) QV_LOG_AT(spdlog::level::debug, __VA_ARGS__)
#define QV_LOG_INFO(...) QV_LOG_AT(spdlog::level::info, __VA_ARGS__)
#define QV_LOG_WARN(...) QV_LOG_AT(spdlog::level::warn, __VA_ARGS__)
#define QV_LOG_ERROR(...) QV_LOG_AT(spdlog::level::err, __VA_ARGS__)
