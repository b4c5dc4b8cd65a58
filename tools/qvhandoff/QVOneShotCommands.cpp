#include "QVOneShotCommands.h"

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVMainQueue.h"
#include "QVEventPrinter.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHostInput.h"
#include "QVHostOptions.h"
#include "QVHostSession.h"
#include "QVProgressBar.h"

#include <fmt/format.h>

#include <cstdio>
#include <iostream>

namespace {

// A transfer ends by itself: completed, failed, or timed out by the HTTP client after a minute of silence.
constexpr auto kTransferBound = std::chrono::hours(24);

int fail(const std::string& message) {
  std::fprintf(stderr, "qvhandoff: %s\n", message.c_str());
  return 1;
}

double seconds(std::chrono::milliseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

// A session on the network for one command, quiet on stdout, ended by an interrupt as well.
class OneShot {
public:
  explicit OneShot(const QVHostOptions& options) : printer_(nullptr), session_(options, printer_) {
    QVHostInput::watchSignals([this] { interrupted_ = true; });
  }
  ~OneShot() { session_.stop(); }

  std::optional<std::string> start(const QVHostOptions& options) {
    bool isDirectory = false;
    if (!QVFileExists(options.container, &isDirectory) || !isDirectory) {
      return fmt::format("container folder {} does not exist", options.container);
    }
    session_.start();
    return std::nullopt;
  }

  // Runs the main queue until `done`, an interrupt or the timeout; whether `done` holds.
  bool runUntil(const std::function<bool()>& done, QVMainQueue::Clock::duration timeout) {
    QVMainQueue::main().runUntil([&] { return interrupted_ || done(); }, timeout);
    return !interrupted_ && done();
  }

  // Starts a transfer with handlers that draw its progress and runs it to its end: the path it reports, or
  // none with the reason.
  std::optional<std::string>
  transfer(const std::string& label,
           const std::function<bool(QVHostSession::Handlers, std::string* error)>& startTransfer,
           std::string* error) {
    bool done = false;
    std::optional<std::string> result;
    QVProgressBar bar(label);
    QVHostSession::Handlers handlers;
    handlers.progress = [&](float progress) { bar.update(progress); };
    handlers.completion = [&](const std::string& path) {
      bar.update(1);
      result = path;
      done = true;
    };
    handlers.error = [&](const QVError& failure) {
      *error = fmt::format("{} failed ({})", label, failure.description());
      done = true;
    };
    if (!startTransfer(std::move(handlers), error)) return std::nullopt;
    if (!runUntil([&] { return done; }, kTransferBound)) {
      *error = "interrupted";
      return std::nullopt;
    }
    return result;
  }

  bool interrupted() const { return interrupted_; }
  QVHostSession& session() { return session_; }

private:
  QVEventPrinter printer_;
  QVHostSession session_;
  bool interrupted_ = false;
};

} // namespace

int QVOneShotCommands::peers(const QVHostOptions& options) {
  OneShot oneShot(options);
  if (auto error = oneShot.start(options)) return fail(*error);
  oneShot.runUntil([] { return false; }, options.wait);
  if (oneShot.interrupted()) return fail("interrupted");
  std::cout << QVEventPrinter::jsonFromServers(oneShot.session().peers()).dump(2) << std::endl;
  return 0;
}

int QVOneShotCommands::get(const QVHostOptions& options) {
  OneShot oneShot(options);
  if (auto error = oneShot.start(options)) return fail(*error);
  QVHostSession& session = oneShot.session();
  if (!oneShot.runUntil([&] { return session.lists(options.device, options.path); }, options.wait)) {
    if (oneShot.interrupted()) return fail("interrupted");
    return fail(fmt::format("\"{}\" did not list {} within {} s", options.device, options.path,
                            seconds(options.wait)));
  }
  std::string error;
  auto localPath = oneShot.transfer(
      "get " + options.path,
      [&](QVHostSession::Handlers handlers, std::string* e) {
        return session.get(options.device, options.path, std::move(handlers), e);
      },
      &error);
  if (!localPath) return fail(error);
  std::cout << *localPath << std::endl;
  return 0;
}

int QVOneShotCommands::saveBack(const QVHostOptions& options) {
  const std::string copy = QVHostSession::absolutePath(options.path);
  auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
  if (!tags) return fail(fmt::format("{} is not a handed-off copy (it has no handoff tags)", copy));
  OneShot oneShot(options);
  if (auto error = oneShot.start(options)) return fail(*error);
  QVHostSession& session = oneShot.session();
  if (!oneShot.runUntil([&] { return session.isListed(tags->deviceName()); }, options.wait)) {
    if (oneShot.interrupted()) return fail("interrupted");
    return fail(fmt::format("its origin \"{}\" did not show up within {} s", tags->deviceName(),
                            seconds(options.wait)));
  }
  std::string error;
  auto landedAt = oneShot.transfer(
      "save back " + copy,
      [&](QVHostSession::Handlers handlers, std::string* e) {
        return session.saveBack(copy, std::move(handlers), e);
      },
      &error);
  if (!landedAt) return fail(error);
  std::cout << *landedAt << std::endl;
  return 0;
}

int QVOneShotCommands::info(const QVHostOptions& options) {
  const std::string copy = QVHostSession::absolutePath(options.path);
  if (!QVFileExists(copy)) return fail(fmt::format("no file at {}", copy));
  auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
  if (!tags) return fail(fmt::format("{} is not a handed-off copy (it has no handoff tags)", copy));
  nlohmann::json object = QVEventPrinter::jsonFromDocument(*tags);
  object["copy"] = copy;
  object["overriddenModified"] =
      QVEventPrinter::jsonFromDate(QVHandoffManager::overriddenFileModificationDateForFileAtPath(copy));
  std::cout << object.dump(2) << std::endl;
  return 0;
}
