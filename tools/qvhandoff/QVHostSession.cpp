// SPDX-License-Identifier: MIT
#include "QVHostSession.h"

#include "Foundation/QVFileOperations.h"
#include "Network/DNSSD/QVDNSSDConfiguration.h"
#include "QVErrorText.h"
#include "QVEventPrinter.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffDocumentMetaStorage.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"

#include <fmt/format.h>

#include <charconv>
#include <filesystem>

using namespace std::chrono_literals;

namespace {

constexpr const char* kManagerNotifications[] = {
    QVHandoffManagerDidUpdateServersInfoNotification,
    QVHandoffManagerDidChangeActiveRemoteDocumentNotification,
    QVHandoffManagerSaveBackFileProgressNotification,
    QVHandoffManagerWillSaveBackRemoteDocumentNotification,
    QVHandoffManagerDidSaveBackRemoteDocumentNotification,
    QVHandoffManagerDidFailSaveBackRemoteDocumentNotification,
    QVHandoffManagerWillHandoffLocalDocumentNotification,
    QVHandoffManagerWillSaveBackLocalDocumentNotification,
    QVHandoffManagerDidMarkLocalFileAsModifiedNotification,
    QVHandoffManagerRequestsForceSaveBackRemoteFileNotification,
};

// The received upload's progress comes after every chunk: one line per percent is plenty.
constexpr float kProgressStep = 0.01f;
// The published name is confirmed on a DNS-SD thread without a notification; it is looked at this often.
constexpr auto kNameCheckInterval = 200ms;
// Long enough for the withdrawal to leave the machine before the process ends.
constexpr auto kWithdrawal = 300ms;

std::string stringValue(const QVUserInfo& userInfo, const char* key) {
  auto found = userInfo.find(key);
  if (found == userInfo.end()) return {};
  const auto* value = std::get_if<std::string>(&found->second);
  return value ? *value : std::string();
}

} // namespace

QVHostSession::QVHostSession(const QVHostOptions& options, QVEventPrinter& printer)
    : options_(options), printer_(printer) {}

QVHostSession::~QVHostSession() {
  if (nameTimer_) QVMainQueue::main().cancelTimer(nameTimer_);
}

std::string QVHostSession::absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

nlohmann::json QVHostSession::jsonFromError(const QVError& error) {
  return {{"domain", error.domain},
          {"code", error.code},
          {"userInfo", QVEventPrinter::jsonFromUserInfo(error.userInfo)}};
}

void QVHostSession::start() {
  QVDNSSDConfiguration::setCurrent(options_.dnssd);
  QVHandoffManager::setProductName(options_.productName);
  QVHandoffiCloudDocumentsPresenter::setContainerPath(options_.container);
  manager_ = QVHandoffManager::defaultManager();
  for (const char* name : kManagerNotifications)
    observe(name, manager_.get());
  observe(QVHandoffiCloudTestedNotification, nullptr);
  observe(QViCloudAccountStateDidChangeNotification, nullptr);

  storage_ = QVHandoffDocumentMetaStorage::storageWithContainerURL(options_.container);
  manager_->setServerPort(options_.port);
  manager_->setMetaStorages({storage_});
  manager_->startHandoffService();
  watchPublishedName();
}

void QVHostSession::stop() {
  if (!manager_) return;
  manager_->stopHandoffService();
  QVMainQueue::main().runUntil([] { return false; }, kWithdrawal);
}

void QVHostSession::setNotificationHandler(std::function<void(const QVNotification&)> handler) {
  notificationHandler_ = std::move(handler);
}

void QVHostSession::observe(const char* name, const void* object) {
  observations_.emplace_back(
      QVNotificationCenter::defaultCenter(), name, object, [this](const QVNotification& notification) {
        print(notification);
        if (!notificationHandler_) return;
        // Some arrive on a connection's thread, some while a connection waits.
        QVMainQueue::main().post([this, notification] { notificationHandler_(notification); });
      });
}

void QVHostSession::print(const QVNotification& notification) {
  nlohmann::json event = {{"event", notification.name},
                          {"userInfo", QVEventPrinter::jsonFromUserInfo(notification.userInfo)}};
  if (notification.name == QVHandoffManagerDidUpdateServersInfoNotification) {
    event["peers"] = QVEventPrinter::jsonFromServers(peers());
  } else if (notification.name == QVHandoffManagerSaveBackFileProgressNotification) {
    const std::string path = stringValue(notification.userInfo, QVHandoffManagerFilePathKey);
    auto found = notification.userInfo.find(QVHandoffManagerProgressKey);
    const float* progress =
        found == notification.userInfo.end() ? nullptr : std::get_if<float>(&found->second);
    if (progress) {
      std::lock_guard lock(progressMutex_);
      auto [printed, fresh] = printedProgress_.try_emplace(path, *progress);
      if (!fresh && *progress < 1.0f && *progress - printed->second < kProgressStep) return;
      printed->second = *progress;
      if (*progress >= 1.0f) printedProgress_.erase(printed);
    }
  }
  printer_.emit(std::move(event));
}

void QVHostSession::watchPublishedName() {
  nameTimer_ = QVMainQueue::main().postAfter(kNameCheckInterval, [this] {
    const std::string name = publishedName();
    if (!name.empty() && name != publishedName_) {
      publishedName_ = name;
      printer_.emit({{"event", "published"}, {"name", name}});
    }
    watchPublishedName();
  });
}

std::string QVHostSession::publishedName() const {
  return manager_ ? manager_->localServer()->publishedName() : std::string();
}

// ---- Local documents ----

void QVHostSession::setDocuments(std::vector<std::shared_ptr<QVHandoffDocumentInfo>> documents,
                                 uint64_t active) {
  manager_->setLocalDocumentsInfo(
      std::make_shared<const QVHandoffManager::DocumentInfoList>(std::move(documents)));
  manager_->setCurrentLocalDocumentIndex(active);
}

bool QVHostSession::open(const std::string& path, std::string* error) {
  const std::string absolute = absolutePath(path);
  bool isDirectory = false;
  if (!QVFileExists(absolute, &isDirectory) || isDirectory) {
    *error = fmt::format("no file at {}", absolute);
    return false;
  }
  auto documents = *manager_->localDocumentsInfo();
  for (size_t i = 0; i < documents.size(); ++i) {
    if (documents[i]->filePath() == absolute) return activate(std::to_string(i), error);
  }
  auto documentInfo = QVHandoffDocumentInfo::make();
  documentInfo->setFilePath(absolute);
  documents.push_back(documentInfo);
  // A document the user opens is the one in front.
  const uint64_t active = documents.size() - 1;
  setDocuments(std::move(documents), active);
  return true;
}

bool QVHostSession::close(const std::string& path, std::string* error) {
  const std::string absolute = absolutePath(path);
  auto documents = *manager_->localDocumentsInfo();
  auto found = std::find_if(documents.begin(), documents.end(),
                            [&](const auto& documentInfo) { return documentInfo->filePath() == absolute; });
  if (found == documents.end()) {
    *error = fmt::format("{} is not open", absolute);
    return false;
  }
  const uint64_t index = found - documents.begin();
  documents.erase(found);
  // The front document stays in front; closing it brings forward the one that took its place.
  uint64_t active = manager_->currentLocalDocumentIndex();
  if (index < active) --active;
  if (active >= documents.size()) active = documents.empty() ? 0 : documents.size() - 1;
  setDocuments(std::move(documents), active);
  return true;
}

bool QVHostSession::activate(const std::string& indexOrPath, std::string* error) {
  const auto documents = manager_->localDocumentsInfo();
  uint64_t index = 0;
  const char* end = indexOrPath.data() + indexOrPath.size();
  if (std::from_chars(indexOrPath.data(), end, index).ptr != end) {
    const std::string absolute = absolutePath(indexOrPath);
    index = documents->size();
    for (size_t i = 0; i < documents->size(); ++i) {
      if ((*documents)[i]->filePath() == absolute) index = i;
    }
  }
  if (index >= documents->size()) {
    *error = fmt::format("no open document {} ({} open)", indexOrPath, documents->size());
    return false;
  }
  manager_->setCurrentLocalDocumentIndex(index);
  return true;
}

nlohmann::json QVHostSession::localDocuments() const {
  nlohmann::json documents = nlohmann::json::array();
  const auto list = manager_->localDocumentsInfo();
  for (const auto& documentInfo : *list)
    documents.push_back(QVEventPrinter::jsonFromDocument(*documentInfo));
  const uint64_t active = manager_->currentLocalDocumentIndex();
  return {{"documents", std::move(documents)},
          {"activeIndex", active < list->size() ? nlohmann::json(active) : nullptr}};
}

// ---- Peers ----

QVHandoffManager::ServerInfoList QVHostSession::peers() const {
  if (!manager_) return {};
  return manager_->remoteServersInfoPassingTest([](const auto&, uint64_t, bool*) { return true; })
      .value_or(QVHandoffManager::ServerInfoList());
}

bool QVHostSession::isListed(const std::string& device) const {
  for (const auto& serverInfo : peers()) {
    if (serverInfo->deviceName() == device) return true;
  }
  return false;
}

bool QVHostSession::lists(const std::string& device, const std::string& path) const {
  for (const auto& serverInfo : peers()) {
    if (serverInfo->deviceName() != device) continue;
    for (const auto& documentInfo : serverInfo->documentsInfo()) {
      if (documentInfo->filePath() == path) return true;
    }
  }
  return false;
}

std::string QVHostSession::addressOf(const std::string& device) const {
  for (const auto& serverInfo : peers()) {
    if (serverInfo->deviceName() == device && !serverInfo->HTTPAddress().empty())
      return QVErrorText::hostAndPort(serverInfo->HTTPAddress());
  }
  return {};
}

// ---- Transfers ----

bool QVHostSession::get(const std::string& device, const std::string& path, Handlers handlers,
                        std::string* error) {
  std::shared_ptr<QVHandoffDocumentInfo> document;
  bool deviceFound = false;
  for (const auto& serverInfo : peers()) {
    if (serverInfo->deviceName() != device) continue;
    deviceFound = true;
    for (const auto& documentInfo : serverInfo->documentsInfo()) {
      if (documentInfo->filePath() == path) document = documentInfo;
    }
  }
  if (!document) {
    *error = deviceFound ? fmt::format("\"{}\" has no document {} open", device, path)
                         : fmt::format("no peer named \"{}\"", device);
    return false;
  }
  manager_->handoffRemoteDocumentWithInfo(document, std::move(handlers.progress),
                                          std::move(handlers.completion), std::move(handlers.error));
  return true;
}

std::shared_ptr<QVHandoffDocumentInfo> QVHostSession::taggedCopy(const std::string& copy,
                                                                 std::string* error) const {
  if (!QVFileExists(copy)) {
    *error = fmt::format("no file at {}", copy);
    return nullptr;
  }
  auto documentInfo = QVHandoffManager::documentInfoForFileAtPath(copy);
  if (!documentInfo) {
    *error = fmt::format("{} is not a handed-off copy (it has no handoff tags)", copy);
    return nullptr;
  }
  if (!isListed(documentInfo->deviceName())) {
    *error = fmt::format("its origin \"{}\" is not on the network now", documentInfo->deviceName());
    return nullptr;
  }
  return documentInfo;
}

bool QVHostSession::saveBack(const std::string& copy, Handlers handlers, std::string* error) {
  const std::string absolute = absolutePath(copy);
  auto documentInfo = taggedCopy(absolute, error);
  if (!documentInfo) return false;
  // The record learns where the copy landed before the completion runs.
  std::weak_ptr<QVHandoffDocumentInfo> weakInfo = documentInfo;
  auto completion = [weakInfo, done = std::move(handlers.completion)](const std::string&) {
    auto info = weakInfo.lock();
    if (done) done(info ? info->filePath() : std::string());
  };
  manager_->saveBackFileAtPath(absolute, documentInfo, std::move(handlers.progress), std::move(completion),
                               std::move(handlers.error));
  return true;
}

bool QVHostSession::markModified(const std::string& copy, std::string* error) {
  const std::string absolute = absolutePath(copy);
  auto documentInfo = taggedCopy(absolute, error);
  if (!documentInfo) return false;
  if (publishedName().empty()) {
    *error = "this installation is not published yet";
    return false;
  }
  manager_->markAsModifiedFileAtPath(absolute, documentInfo);
  return true;
}

bool QVHostSession::forceSaveBack(const std::string& path, std::string* error) {
  const std::string absolute = absolutePath(path);
  auto documentInfo = manager_->localDocumentInfoForFilePath(absolute);
  if (!documentInfo) {
    *error = fmt::format("{} is not open", absolute);
    return false;
  }
  if (!documentInfo->hasRemoteInfo()) {
    *error = fmt::format("no peer has marked {} as modified", absolute);
    return false;
  }
  if (!manager_->forceRemoteSaveBackForLocalFileAtPath(absolute)) {
    *error = fmt::format("\"{}\", which holds the modified copy, is not reachable",
                         documentInfo->remoteDeviceName());
    return false;
  }
  return true;
}

bool QVHostSession::cancel(const std::string& copyOrPath, std::string* error) {
  const std::string absolute = absolutePath(copyOrPath);
  for (const auto& documentInfo : manager_->saveBackDocumentsInfo()) {
    if (documentInfo->saveBackFilePath() != absolute) continue;
    manager_->cancelSaveBackDocumentWithInfo(documentInfo);
    return true;
  }
  for (const auto& documentInfo : manager_->handoffDocumentsInfo()) {
    if (documentInfo->filePath() != copyOrPath) continue;
    manager_->cancelHandoffRemoteDocumentWithInfo(documentInfo);
    return true;
  }
  *error = fmt::format("no transfer of {} in progress", copyOrPath);
  return false;
}
