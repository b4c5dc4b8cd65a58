// SPDX-License-Identifier: MIT
#include "QVServeLoop.h"

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVMainQueue.h"
#include "QVErrorText.h"
#include "QVEscapedText.h"
#include "QVEventPrinter.h"
#include "QVExitStatus.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHostInput.h"
#include "QVHostOptions.h"
#include "QVHostSession.h"
#include "QVProgressBar.h"

#include <fmt/format.h>

#include <cstdio>

namespace {

constexpr auto kForever = std::chrono::hours(24 * 365 * 10);

} // namespace

QVServeLoop::QVServeLoop(const QVHostOptions& options, QVHostSession& session, QVEventPrinter& printer)
    : options_(options), session_(session), printer_(printer) {}

int QVServeLoop::run() {
  // A wrong command line never joins the network.
  for (const auto& file : options_.files) {
    bool isDirectory = false;
    if (!QVFileExists(QVHostSession::absolutePath(file), &isDirectory) || isDirectory) {
      std::fprintf(stderr, "qvhandoff: no file at %s\n",
                   QVEscapedText::escape(QVHostSession::absolutePath(file)).c_str());
      return QVExitCode(QVExitStatus::Usage);
    }
  }
  session_.start();
  for (const auto& file : options_.files) {
    std::string error;
    if (!session_.open(file, &error)) {
      std::fprintf(stderr, "qvhandoff: %s\n", QVEscapedText::escape(error).c_str());
      session_.stop();
      return QVExitCode(QVExitStatus::Failure);
    }
  }
  if (!options_.files.empty()) {
    std::string error;
    session_.activate("0", &error);
  }
  session_.setNotificationHandler([this](const QVNotification& n) { notificationArrived(n); });
  printer_.emit({{"event", "started"},
                 {"productName", options_.productName},
                 {"container", options_.container},
                 {"dnssd", QVDNSSDConfiguration::stringFromMode(options_.dnssd.mode)}});
  emitDocuments();

  // A service has no input: a closed stdin must not end it, only a signal does.
  if (options_.readInput)
    QVHostInput::readLines([this](const std::string& line) { perform(line); }, [this] { quit_ = true; });
  QVHostInput::watchSignals([this] { quit_ = true; });
  QVMainQueue::main().runUntil([this] { return quit_; }, kForever);

  session_.stop();
  printer_.emit({{"event", "exit"}});
  // A signal is how a service is told to stop: that is a clean end, not an interruption.
  return QVExitCode(QVExitStatus::Success);
}

void QVServeLoop::perform(const std::string& line) {
  std::string error;
  auto command = QVHostCommand::parse(line, &error);
  if (!command) {
    if (!error.empty()) printer_.emit({{"event", "error"}, {"line", line}, {"message", error}});
    return;
  }
  if (!perform(*command, &error)) {
    printer_.emit({{"event", "error"},
                   {"command", QVHostCommand::name(command->verb)},
                   {"arguments", command->arguments},
                   {"message", error}});
  }
}

bool QVServeLoop::perform(const QVHostCommand& command, std::string* error) {
  const auto& arguments = command.arguments;
  switch (command.verb) {
  case QVHostCommand::Verb::Open:
    if (!session_.open(arguments[0], error)) return false;
    emitDocuments();
    return true;
  case QVHostCommand::Verb::Close:
    if (!session_.close(arguments[0], error)) return false;
    emitDocuments();
    return true;
  case QVHostCommand::Verb::Activate:
    if (!session_.activate(arguments[0], error)) return false;
    emitDocuments();
    return true;
  case QVHostCommand::Verb::Peers:
    printer_.emit({{"event", "peers"}, {"peers", QVEventPrinter::jsonFromServers(session_.peers())}});
    return true;
  case QVHostCommand::Verb::Get: {
    const std::string device = arguments[0];
    const std::string path = arguments[1];
    auto bar = std::make_shared<QVProgressBar>(fmt::format("get {}", path));
    const std::string address = session_.addressOf(device);
    QVHostSession::Handlers handlers;
    handlers.progress = [this, bar, device, path](float progress) {
      bar->update(progress);
      printer_.emit(
          {{"event", "handoffProgress"}, {"device", device}, {"path", path}, {"progress", progress}});
    };
    handlers.completion = [this, bar, device, path](const std::string& localPath) {
      printer_.emit(
          {{"event", "handoffCompleted"}, {"device", device}, {"path", path}, {"localPath", localPath}});
    };
    handlers.error = [this, bar, device, path, address](const QVError& e) {
      printer_.emit({{"event", "handoffFailed"},
                     {"device", device},
                     {"path", path},
                     {"error", QVHostSession::jsonFromError(e)},
                     {"message", QVErrorText::sentence(e, "hand off " + path, device, address)}});
    };
    return session_.get(device, path, std::move(handlers), error);
  }
  case QVHostCommand::Verb::SaveBack:
    return saveBack(arguments[0], error);
  case QVHostCommand::Verb::MarkModified:
    if (!session_.markModified(arguments[0], error)) return false;
    printer_.emit({{"event", "markModified"}, {"copy", QVHostSession::absolutePath(arguments[0])}});
    return true;
  case QVHostCommand::Verb::ForceSaveBack:
    if (!session_.forceSaveBack(arguments[0], error)) return false;
    printer_.emit({{"event", "forceSaveBack"}, {"path", QVHostSession::absolutePath(arguments[0])}});
    return true;
  case QVHostCommand::Verb::Cancel:
    if (!session_.cancel(arguments[0], error)) return false;
    printer_.emit({{"event", "cancelled"}, {"target", arguments[0]}});
    return true;
  case QVHostCommand::Verb::Quit:
    quit_ = true;
    return true;
  }
  return true;
}

bool QVServeLoop::saveBack(const std::string& copy, std::string* error) {
  const std::string absolute = QVHostSession::absolutePath(copy);
  auto bar = std::make_shared<QVProgressBar>(fmt::format("save back {}", absolute));
  const auto tags = QVHandoffManager::documentInfoForFileAtPath(absolute);
  const std::string device = tags ? tags->deviceName() : std::string();
  const std::string address = session_.addressOf(device);
  QVHostSession::Handlers handlers;
  handlers.progress = [this, bar, absolute](float progress) {
    bar->update(progress);
    printer_.emit({{"event", "saveBackProgress"}, {"copy", absolute}, {"progress", progress}});
  };
  handlers.completion = [this, bar, absolute](const std::string& landedAt) {
    printer_.emit({{"event", "saveBackCompleted"}, {"copy", absolute}, {"path", landedAt}});
  };
  handlers.error = [this, bar, absolute, device, address](const QVError& e) {
    printer_.emit({{"event", "saveBackFailed"},
                   {"copy", absolute},
                   {"error", QVHostSession::jsonFromError(e)},
                   {"message", QVErrorText::sentence(e, "save back " + absolute, device, address)}});
  };
  return session_.saveBack(absolute, std::move(handlers), error);
}

void QVServeLoop::notificationArrived(const QVNotification& notification) {
  if (notification.name != QVHandoffManagerRequestsForceSaveBackRemoteFileNotification) return;
  auto found = notification.userInfo.find(QVHandoffManagerFilePathKey);
  const auto* copy =
      found == notification.userInfo.end() ? nullptr : std::get_if<std::string>(&found->second);
  if (!copy) return;
  // The origin asks for the edited copy: what a user would do by hand, done at once.
  std::string error;
  if (!saveBack(*copy, &error)) {
    printer_.emit({{"event", "error"}, {"command", "save-back"}, {"arguments", {*copy}}, {"message", error}});
  }
}

void QVServeLoop::emitDocuments() {
  nlohmann::json event = session_.localDocuments();
  event["event"] = "documents";
  printer_.emit(std::move(event));
}
