// SPDX-License-Identifier: MIT
#pragma once
// Child processes for the end-to-end tests: one-shot commands, and long-running ones whose stdout is a
// stream of JSON objects, one per line, kept in a file beside their stderr. A child is killed and reaped
// with its object, also when a test fails.

#include <nlohmann/json.hpp>

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Runs `argv` to its end; its exit status (-1 when it could not start), stdout in `output` when given.
int QVRunCommand(const std::vector<std::string>& argv, std::string* output = nullptr);

class QVChildProcess {
public:
  using Match = std::function<bool(const nlohmann::json&)>;

  // stderr goes to `logPath`, stdout to `logPath` + ".events".
  QVChildProcess(const std::vector<std::string>& argv, const std::string& logPath);
  ~QVChildProcess();
  QVChildProcess(const QVChildProcess&) = delete;
  QVChildProcess& operator=(const QVChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  bool send(const std::string& line);

  // The first event at index `from` or later that matches, waiting at most `timeout` for it.
  std::optional<nlohmann::json> waitFor(const Match& match, std::chrono::milliseconds timeout,
                                        size_t from = 0);
  std::vector<nlohmann::json> events() const;
  size_t eventCount() const { return events().size(); }
  size_t count(const Match& match) const;
  // Waits for the child to end by itself; false when it still runs after `timeout`.
  bool waitForExit(std::chrono::milliseconds timeout);

  // {"event": name} and, when given, {"name": serviceName}.
  static Match event(const std::string& name, const std::optional<std::string>& serviceName = std::nullopt);

private:
  pid_t pid_ = -1;
  int input_ = -1;
  std::string eventsPath_;
};
