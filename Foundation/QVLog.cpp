#include "Foundation/QVLog.h"

#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <cstdlib>
#include <mutex>

namespace QVLogging {
namespace {

struct Registry {
  std::mutex mutex;
  std::shared_ptr<spdlog::sinks::dist_sink_mt> sink = std::make_shared<spdlog::sinks::dist_sink_mt>();
  spdlog::level::level_enum level = spdlog::level::info;

  Registry() {
    // Lines go to stderr: stdout belongs to the host (the command line prints JSON there).
    sink->add_sink(std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
    sink->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %n:%# %! %v");
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
  if (auto existing = spdlog::get(source)) {
    return existing;
  }
  auto created = std::make_shared<spdlog::logger>(source, reg.sink);
  created->set_level(reg.level);
  spdlog::register_logger(created);
  return created;
}

void setLevel(spdlog::level::level_enum level) {
  Registry& reg = registry();
  std::lock_guard lock(reg.mutex);
  reg.level = level;
  spdlog::apply_all([level](const std::shared_ptr<spdlog::logger>& each) { each->set_level(level); });
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
