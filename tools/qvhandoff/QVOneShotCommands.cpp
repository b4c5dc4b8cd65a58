// SPDX-License-Identifier: MIT
#include "QVOneShotCommands.h"

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "QVErrorText.h"
#include "QVEscapedText.h"
#include "QVEventPrinter.h"
#include "QVExitStatus.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffDocumentMetaStorage.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"
#include "QVHostInput.h"
#include "QVHostOptions.h"
#include "QVHostSession.h"
#include "QVPeersTable.h"
#include "QVProgressBar.h"

#include <fmt/format.h>
#include <spdlog/sinks/base_sink.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace {

// A transfer ends by itself: completed, failed, or timed out by the HTTP client after a minute of silence.
constexpr auto kTransferBound = std::chrono::hours(24);
// The mark is one small request with no answer for the host: on a local network it is long done by then.
constexpr auto kMarkSettle = std::chrono::seconds(2);

int fail(QVExitStatus status, const std::string& message) {
  std::fprintf(stderr, "qvhandoff: %s\n", QVEscapedText::escape(message).c_str());
  return QVExitCode(status);
}

double seconds(std::chrono::milliseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

std::string keyFilePath(const std::string& container) {
  return (std::filesystem::path(container) / QVHandoffMetaFileName).string();
}

// Counts the manager's error lines about a mark request: the request is fire-and-forget, and its failure
// shows nowhere else.
class MarkFailureSink : public spdlog::sinks::base_sink<std::mutex> {
public:
  bool failed() const { return failed_; }

protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const std::string_view text(message.payload.data(), message.payload.size());
    if (message.level >= spdlog::level::err && text.starts_with("Mark as modified file request"))
      failed_ = true;
  }
  void flush_() override {}

private:
  std::atomic<bool> failed_ = false;
};

// The exit status when there is no container folder.
std::optional<int> containerFailure(const QVHostOptions& options) {
  bool isDirectory = false;
  if (QVFileExists(options.container, &isDirectory) && isDirectory) return std::nullopt;
  return fail(QVExitStatus::NotSetUp, fmt::format("container folder {} does not exist", options.container));
}

// The exit status when the container is not ready to join the network with, before anything started.
std::optional<int> setUpFailure(const QVHostOptions& options) {
  if (auto status = containerFailure(options)) return status;
  // The key comes from the device that made it, through the sync client; one made here would compete.
  if (!QVFileExists(keyFilePath(options.container))) {
    return fail(QVExitStatus::NotSetUp,
                fmt::format("no shared key in {} yet: wait for the folder to sync, or run `qvhandoff init` "
                            "on the first device",
                            options.container));
  }
  return std::nullopt;
}

// A session on the network for one command, quiet on stdout, ended by an interrupt as well. Made only
// once setUpFailure found the container ready.
class OneShot {
public:
  explicit OneShot(const QVHostOptions& options) : printer_(nullptr), session_(options, printer_) {
    QVHostInput::watchSignals([this] { interrupted_ = true; });
    session_.start();
  }
  ~OneShot() { session_.stop(); }
  OneShot(const OneShot&) = delete;
  OneShot& operator=(const OneShot&) = delete;

  // Runs the main queue until `done`, an interrupt or the timeout; whether `done` holds.
  bool runUntil(const std::function<bool()>& done, QVMainQueue::Clock::duration timeout) {
    QVMainQueue::main().runUntil([&] { return interrupted_ || done(); }, timeout);
    return !interrupted_ && done();
  }

  // Starts a transfer with `device` with handlers that draw its progress and runs it to its end: the path
  // it reports, or none with the exit status and the reason.
  std::optional<std::string>
  transfer(const std::string& action, const std::string& device,
           const std::function<bool(QVHostSession::Handlers, std::string* error)>& startTransfer, int* status,
           std::string* error) {
    bool done = false;
    std::optional<std::string> result;
    QVProgressBar bar(action);
    // Taken now: a peer that refuses the connection loses its address before the failure arrives.
    const std::string address = session_.addressOf(device);
    QVHostSession::Handlers handlers;
    handlers.progress = [&](float progress) { bar.update(progress); };
    handlers.completion = [&](const std::string& path) {
      bar.update(1);
      result = path;
      done = true;
    };
    handlers.error = [&](const QVError& failure) {
      *error = QVErrorText::sentence(failure, action, device, address);
      done = true;
    };
    *status = QVExitCode(QVExitStatus::TransferFailed);
    if (!startTransfer(std::move(handlers), error)) return std::nullopt;
    if (!runUntil([&] { return done; }, kTransferBound)) {
      *status = QVExitCode(QVExitStatus::Interrupted);
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

// The tags of a handed-off copy, or none with the exit status already printed.
std::shared_ptr<QVHandoffDocumentInfo> tagsOfCopy(const std::string& copy, int* status) {
  if (!QVFileExists(copy)) {
    *status = fail(QVExitStatus::NotACopy, fmt::format("no file at {}", copy));
    return nullptr;
  }
  auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
  if (!tags)
    *status = fail(QVExitStatus::NotACopy,
                   fmt::format("{} is not a handed-off copy (it has no handoff tags)", copy));
  return tags;
}

// The exit status when `copy` is no handed-off copy or the container is not ready; else its tags in `tags`.
std::optional<int> copyFailure(const std::string& copy, const QVHostOptions& options,
                               std::shared_ptr<QVHandoffDocumentInfo>* tags) {
  int status = 0;
  *tags = tagsOfCopy(copy, &status);
  if (!*tags) return status;
  return setUpFailure(options);
}

// Runs a transfer with `device` to its end and prints the path it reports; the exit status.
int runTransfer(OneShot& oneShot, const std::string& action, const std::string& device,
                const std::function<bool(QVHostSession::Handlers, std::string* error)>& startTransfer) {
  std::string error;
  int status = 0;
  auto path = oneShot.transfer(action, device, startTransfer, &status, &error);
  if (!path) return fail(static_cast<QVExitStatus>(status), error);
  std::cout << QVEscapedText::escape(*path) << std::endl;
  return QVExitCode(QVExitStatus::Success);
}

// Waits for the copy's origin to be listed; the exit status when it does not show up.
std::optional<int> waitForOrigin(OneShot& oneShot, const QVHostOptions& options, const std::string& device) {
  if (oneShot.runUntil([&] { return oneShot.session().isListed(device); }, options.wait)) return std::nullopt;
  if (oneShot.interrupted()) return fail(QVExitStatus::Interrupted, "interrupted");
  return fail(QVExitStatus::NoSuchPeer,
              fmt::format("its origin \"{}\" did not show up within {} s", device, seconds(options.wait)));
}

} // namespace

int QVOneShotCommands::init(const QVHostOptions& options) {
  if (auto status = containerFailure(options)) return *status;
  const std::string keyFile = keyFilePath(options.container);
  if (QVFileExists(keyFile)) {
    std::cout << fmt::format("{} already holds a shared key\n", QVEscapedText::escape(options.container));
    return QVExitCode(QVExitStatus::Success);
  }
  QVHandoffiCloudDocumentsPresenter::setContainerPath(options.container);
  auto storage = QVHandoffDocumentMetaStorage::storageWithContainerURL(options.container);
  storage->setMaster(true);
  storage->ensureMetaDataFilePresented();
  if (!QVFileExists(keyFile)) {
    return fail(QVExitStatus::Failure, fmt::format("could not write the shared key to {}", keyFile));
  }
  std::cout << fmt::format("made a shared key in {}\n", QVEscapedText::escape(options.container));
  return QVExitCode(QVExitStatus::Success);
}

int QVOneShotCommands::peers(const QVHostOptions& options) {
  if (auto status = setUpFailure(options)) return *status;
  OneShot oneShot(options);
  oneShot.runUntil([] { return false; }, options.wait);
  if (oneShot.interrupted()) return fail(QVExitStatus::Interrupted, "interrupted");
  const auto peers = oneShot.session().peers();
  if (options.json.value_or(!isatty(STDOUT_FILENO))) {
    std::cout << QVEventPrinter::text(QVEventPrinter::jsonFromServers(peers), 2) << std::endl;
  } else {
    std::cout << QVPeersTable::text(peers);
  }
  return QVExitCode(QVExitStatus::Success);
}

int QVOneShotCommands::get(const QVHostOptions& options) {
  if (auto status = setUpFailure(options)) return *status;
  OneShot oneShot(options);
  QVHostSession& session = oneShot.session();
  if (!oneShot.runUntil([&] { return session.lists(options.device, options.path); }, options.wait)) {
    if (oneShot.interrupted()) return fail(QVExitStatus::Interrupted, "interrupted");
    if (!session.isListed(options.device)) {
      return fail(QVExitStatus::NoSuchPeer, fmt::format("no peer named \"{}\" showed up within {} s",
                                                        options.device, seconds(options.wait)));
    }
    return fail(QVExitStatus::NoSuchPeer,
                fmt::format("\"{}\" does not have {} open", options.device, options.path));
  }
  return runTransfer(oneShot, "hand off " + options.path, options.device,
                     [&](QVHostSession::Handlers handlers, std::string* error) {
                       return session.get(options.device, options.path, std::move(handlers), error);
                     });
}

int QVOneShotCommands::saveBack(const QVHostOptions& options) {
  const std::string copy = QVHostSession::absolutePath(options.path);
  std::shared_ptr<QVHandoffDocumentInfo> tags;
  if (auto failed = copyFailure(copy, options, &tags)) return *failed;
  OneShot oneShot(options);
  if (auto failed = waitForOrigin(oneShot, options, tags->deviceName())) return *failed;
  return runTransfer(oneShot, "save back " + copy, tags->deviceName(),
                     [&](QVHostSession::Handlers handlers, std::string* error) {
                       return oneShot.session().saveBack(copy, std::move(handlers), error);
                     });
}

int QVOneShotCommands::markModified(const QVHostOptions& options) {
  const std::string copy = QVHostSession::absolutePath(options.path);
  std::shared_ptr<QVHandoffDocumentInfo> tags;
  if (auto failed = copyFailure(copy, options, &tags)) return *failed;
  OneShot oneShot(options);
  QVHostSession& session = oneShot.session();
  // The origin learns the name to ask for the copy under: this installation must be published first.
  if (!oneShot.runUntil([&] { return !session.publishedName().empty(); }, options.wait)) {
    if (oneShot.interrupted()) return fail(QVExitStatus::Interrupted, "interrupted");
    return fail(QVExitStatus::Failure,
                fmt::format("this installation was not published within {} s", seconds(options.wait)));
  }
  if (auto failed = waitForOrigin(oneShot, options, tags->deviceName())) return *failed;
  auto sink = std::make_shared<MarkFailureSink>();
  QVLogging::addSink(sink);
  std::string error;
  const bool sent = session.markModified(copy, &error);
  if (sent) oneShot.runUntil([&] { return sink->failed(); }, kMarkSettle);
  QVLogging::removeSink(sink);
  if (!sent) return fail(QVExitStatus::TransferFailed, error);
  if (oneShot.interrupted()) return fail(QVExitStatus::Interrupted, "interrupted");
  if (sink->failed()) {
    return fail(QVExitStatus::TransferFailed,
                fmt::format("could not mark {} as modified at \"{}\" (run with -v for the reason)", copy,
                            tags->deviceName()));
  }
  return QVExitCode(QVExitStatus::Success);
}

int QVOneShotCommands::info(const QVHostOptions& options) {
  const std::string copy = QVHostSession::absolutePath(options.path);
  int status = 0;
  auto tags = tagsOfCopy(copy, &status);
  if (!tags) return status;
  nlohmann::json object = QVEventPrinter::jsonFromDocument(*tags);
  object["copy"] = copy;
  object["overriddenModified"] =
      QVEventPrinter::jsonFromDate(QVHandoffManager::overriddenFileModificationDateForFileAtPath(copy));
  std::cout << QVEventPrinter::text(object, 2) << std::endl;
  return QVExitCode(QVExitStatus::Success);
}
