#include "support/QVChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

extern char** environ;

namespace {

constexpr auto kExitGrace = std::chrono::seconds(3);

// Spawns `argv` with the given descriptors as its stdin and stdout (-1: /dev/null) and stderr to a file.
pid_t spawn(const std::vector<std::string>& argv, int input, int output, const std::string& stderrPath) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (input >= 0) {
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  if (output >= 0) {
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO,
                                   stderrPath.empty() ? "/dev/null" : stderrPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> arguments;
  for (const auto& argument : argv)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

int QVRunCommand(const std::vector<std::string>& argv, std::string* output) {
  std::array<int, 2> pipe{-1, -1};
  if (output && pipe2(pipe.data(), O_CLOEXEC) != 0) return -1;
  const pid_t pid = spawn(argv, -1, output ? pipe[1] : -1, "");
  if (output) {
    close(pipe[1]);
    char buffer[4096];
    ssize_t length = 0;
    while ((length = read(pipe[0], buffer, sizeof buffer)) > 0)
      output->append(buffer, static_cast<size_t>(length));
    close(pipe[0]);
  }
  return pid > 0 ? exitStatus(pid) : -1;
}

QVChildProcess::QVChildProcess(const std::vector<std::string>& argv, const std::string& stderrPath) {
  // Close-on-exec, so that a later child does not hold this one's stdin open.
  std::array<int, 2> input{-1, -1};
  std::array<int, 2> output{-1, -1};
  if (pipe2(input.data(), O_CLOEXEC) != 0) return;
  if (pipe2(output.data(), O_CLOEXEC) != 0) {
    close(input[0]);
    close(input[1]);
    return;
  }
  pid_ = spawn(argv, input[0], output[1], stderrPath);
  close(input[0]);
  close(output[1]);
  input_ = input[1];
  output_ = output[0];
  reader_ = std::thread([this] { readOutput(); });
}

QVChildProcess::~QVChildProcess() {
  // The end of its input asks the child to finish cleanly; a signal follows when it does not.
  closeInput();
  if (pid_ > 0 && !waitForExit(kExitGrace)) reap(SIGTERM);
  if (reader_.joinable()) reader_.join();
  if (output_ >= 0) close(output_);
}

bool QVChildProcess::send(const std::string& line) {
  if (input_ < 0) return false;
  const std::string text = line + "\n";
  return write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void QVChildProcess::closeInput() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

void QVChildProcess::readOutput() {
  std::string pending;
  char buffer[4096];
  ssize_t length = 0;
  while ((length = read(output_, buffer, sizeof buffer)) > 0) {
    pending.append(buffer, static_cast<size_t>(length));
    size_t end = 0;
    while ((end = pending.find('\n')) != std::string::npos) {
      nlohmann::json event = nlohmann::json::parse(pending.substr(0, end), nullptr, false);
      if (event.is_discarded()) event = {{"event", "unparsable"}, {"line", pending.substr(0, end)}};
      pending.erase(0, end + 1);
      std::lock_guard lock(mutex_);
      events_.push_back(std::move(event));
      changed_.notify_all();
    }
  }
  std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

std::optional<nlohmann::json> QVChildProcess::waitFor(const Match& match, std::chrono::milliseconds timeout,
                                                      size_t from) {
  std::unique_lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (bool last = false;; last = ended_ || changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
    for (; from < events_.size(); ++from) {
      if (match(events_[from])) return events_[from];
    }
    if (last) return std::nullopt;
  }
}

size_t QVChildProcess::eventCount() const {
  std::lock_guard lock(mutex_);
  return events_.size();
}

size_t QVChildProcess::count(const Match& match) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count_if(events_.begin(), events_.end(), match));
}

std::vector<nlohmann::json> QVChildProcess::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

bool QVChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return true;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void QVChildProcess::reap(int signal) {
  kill(pid_, signal);
  if (!waitForExit(kExitGrace)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
}

QVChildProcess::Match QVChildProcess::event(const std::string& name,
                                            const std::optional<std::string>& serviceName) {
  return [name, serviceName](const nlohmann::json& event) {
    return event.value("event", "") == name && (!serviceName || event.value("name", "") == *serviceName);
  };
}
