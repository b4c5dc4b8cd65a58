// SPDX-License-Identifier: MIT
#pragma once
// One installation of the host: points the framework at the container, owns the list of open documents,
// prints every notification, and turns the host's requests into the manager's calls, with the checks that
// give the user a reason where the framework would only log.

#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHostOptions.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class QVEventPrinter;
class QVHandoffDocumentInfo;
class QVHandoffMetaStorage;

class QVHostSession {
public:
  struct Handlers {
    QVHandoffManager::ProgressHandler progress;
    QVHandoffManager::CompletionHandler completion;
    QVHandoffManager::ErrorHandler error;
  };

  QVHostSession(const QVHostOptions& options, QVEventPrinter& printer);
  ~QVHostSession();
  QVHostSession(const QVHostSession&) = delete;
  QVHostSession& operator=(const QVHostSession&) = delete;

  // Configures DNS-SD and the container, then starts the service; it publishes once the shared key is there.
  void start();
  // Withdraws the service and lets the withdrawal go out.
  void stop();
  // Called on the main queue after each notification has been printed.
  void setNotificationHandler(std::function<void(const QVNotification&)> handler);

  // Local documents; each returns false with the reason in `error`.
  bool open(const std::string& path, std::string* error);
  bool close(const std::string& path, std::string* error);
  bool activate(const std::string& indexOrPath, std::string* error);
  nlohmann::json localDocuments() const;
  // The name peers know this installation by; empty until published.
  std::string publishedName() const;

  // Copies of the peers whose lists are up to date.
  QVHandoffManager::ServerInfoList peers() const;
  bool lists(const std::string& device, const std::string& path) const;
  bool isListed(const std::string& device) const;

  // Transfers; the handlers run on the main queue, and a cancelled transfer calls none.
  bool get(const std::string& device, const std::string& path, Handlers handlers, std::string* error);
  // The completion gets the path where the copy landed on its origin.
  bool saveBack(const std::string& copy, Handlers handlers, std::string* error);
  bool markModified(const std::string& copy, std::string* error);
  bool forceSaveBack(const std::string& path, std::string* error);
  bool cancel(const std::string& copyOrPath, std::string* error);

  // Where `device` is reached, "10.1.2.3:4567", for the words of an error; empty while unresolved.
  std::string addressOf(const std::string& device) const;

  static std::string absolutePath(const std::string& path);
  static nlohmann::json jsonFromError(const QVError& error);

private:
  void observe(const char* name, const void* object);
  void print(const QVNotification& notification);
  void setDocuments(std::vector<std::shared_ptr<QVHandoffDocumentInfo>> documents, uint64_t active);
  void watchPublishedName();
  // The tags of a handed-off copy whose origin is listed now.
  std::shared_ptr<QVHandoffDocumentInfo> taggedCopy(const std::string& copy, std::string* error) const;

  const QVHostOptions& options_;
  QVEventPrinter& printer_;
  std::shared_ptr<QVHandoffManager> manager_;
  std::shared_ptr<QVHandoffMetaStorage> storage_;
  std::vector<QVNotificationObservation> observations_;
  std::function<void(const QVNotification&)> notificationHandler_;
  std::mutex progressMutex_;
  std::map<std::string, float> printedProgress_;
  std::string publishedName_;
  QVMainQueue::TimerID nameTimer_ = 0;
};
