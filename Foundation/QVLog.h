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
// level comes from QVHANDOFF_LOG_LEVEL (trace, debug, info, warning, error, off; default info).
std::shared_ptr<spdlog::logger> logger(const std::string& source);

// Sets the level of every logger, present and future.
void setLevel(spdlog::level::level_enum level);
spdlog::level::level_enum level();

// Adds or removes a sink that sees every line of every logger (tests capture lines with it).
void addSink(std::shared_ptr<spdlog::sinks::sink> sink);
void removeSink(const std::shared_ptr<spdlog::sinks::sink>& sink);

// "void QVHandoffManager::start(int)" -> "QVHandoffManager::start".
std::string operationName(std::string_view prettyFunction);

} // namespace QVLogging

#define QV_LOG_SOURCE(source)                                                                                \
  namespace {                                                                                                \
  spdlog::logger& qvLogger() {                                                                               \
    static const std::shared_ptr<spdlog::logger> logger = QVLogging::logger(source);                         \
    return *logger;                                                                                          \
  }                                                                                                          \
  }

#define QV_LOG_AT(lvl, ...)                                                                                  \
  do {                                                                                                       \
    spdlog::logger& qvLogger_ = qvLogger();                                                                  \
    if (qvLogger_.should_log(lvl)) {                                                                         \
      const std::string qvOperation_ = QVLogging::operationName(__PRETTY_FUNCTION__);                        \
      qvLogger_.log(spdlog::source_loc{__FILE__, __LINE__, qvOperation_.c_str()}, lvl, __VA_ARGS__);         \
    }                                                                                                        \
  } while (0)

#define QV_LOG_DEBUG(...) QV_LOG_AT(spdlog::level::debug, __VA_ARGS__)
#define QV_LOG_INFO(...) QV_LOG_AT(spdlog::level::info, __VA_ARGS__)
#define QV_LOG_WARN(...) QV_LOG_AT(spdlog::level::warn, __VA_ARGS__)
#define QV_LOG_ERROR(...) QV_LOG_AT(spdlog::level::err, __VA_ARGS__)
