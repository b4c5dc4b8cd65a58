// SPDX-License-Identifier: MIT
#include "support/QVChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <thread>

extern char** environ;

namespace {

constexpr auto kExitGrace = std::chrono::seconds(3);

// Spawns `argv` with the given descriptors as its stdin and stdout and its stderr to a file.
pid_t spawn(const std::vector<std::string>& argv, int input, int output, const std::string& stderrPath) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  std::vector<char*> arguments;
  for (const auto& argument : argv)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

} // namespace

int QVRunCommand(const std::vector<std::string>& argv, std::string* output) {
  std::array<int, 2> pipe{-1, -1};
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0 || pipe2(pipe.data(), O_CLOEXEC) != 0) return -1;
  const pid_t pid = spawn(argv, null, output ? pipe[1] : null, "/dev/null");
  close(null);
  close(pipe[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t length; (length = read(pipe[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(length));
  close(pipe[0]);
  if (output) *output = std::move(text);
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

QVChildProcess::QVChildProcess(const std::vector<std::string>& argv, const std::string& logPath)
    : eventsPath_(logPath + ".events") {
  // Close-on-exec, so that a later child does not hold this one's stdin open.
  std::array<int, 2> input{-1, -1};
  const int output = open(eventsPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (output >= 0 && pipe2(input.data(), O_CLOEXEC) == 0) {
    pid_ = spawn(argv, input[0], output, logPath);
    close(input[0]);
    input_ = input[1];
  }
  if (output >= 0) close(output);
}

QVChildProcess::~QVChildProcess() {
  // The end of its input asks the child to finish cleanly; signals follow when it does not.
  if (input_ >= 0) close(input_);
  for (const int signal : {SIGTERM, SIGKILL}) {
    if (waitForExit(kExitGrace)) break;
    kill(pid_, signal);
  }
  if (pid_ > 0) waitpid(pid_, nullptr, 0);
}

bool QVChildProcess::send(const std::string& line) {
  const std::string text = line + "\n";
  return input_ >= 0 && write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::vector<nlohmann::json> QVChildProcess::events() const {
  std::vector<nlohmann::json> events;
  std::ifstream file(eventsPath_);
  // A last line without its newline is still being written.
  for (std::string line; std::getline(file, line) && !file.eof();) {
    nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
    events.push_back(event.is_discarded() ? nlohmann::json{{"event", "unparsable"}, {"line", line}} : event);
  }
  return events;
}

std::optional<nlohmann::json> QVChildProcess::waitFor(const Match& match, std::chrono::milliseconds timeout,
                                                      size_t from) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (bool last = false;; last = waitForExit({}) || std::chrono::steady_clock::now() >= deadline) {
    const auto all = events();
    for (; from < all.size(); ++from) {
      if (match(all[from])) return all[from];
    }
    if (last) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

size_t QVChildProcess::count(const Match& match) const {
  const auto all = events();
  return static_cast<size_t>(std::count_if(all.begin(), all.end(), match));
}

bool QVChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) != pid_) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  pid_ = -1;
  return true;
}

QVChildProcess::Match QVChildProcess::event(const std::string& name,
                                            const std::optional<std::string>& serviceName) {
  return [name, serviceName](const nlohmann::json& event) {
    return event.value("event", "") == name && (!serviceName || event.value("name", "") == *serviceName);
  };
}
