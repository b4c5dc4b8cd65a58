#pragma once
// Transfers between the manager's client and its own local server on 127.0.0.1: the server serves the
// manager's open documents, a peer record in the registry points at it, and every handler call is kept.

#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoffServerFixture.h"
#include "support/QVPrivateCachesEnvironment.h"
#include "support/QVStandInNetService.h"

#include <fmt/format.h>

struct QVTransferOutcome {
  std::vector<std::string> completions;
  std::vector<QVError> errors;
  std::vector<float> progress;
  bool ended() const { return !completions.empty() || !errors.empty(); }
};

class QVTransferTest : public QVHandoffServerTest {
protected:
  void TearDown() override {
    for (const auto& peer : peers_)
      manager_->removeRemoteServerInfoForService(peer);
    std::filesystem::remove_all(manager_->handoffDirectoryPath());
    QVHandoffServerTest::TearDown();
  }

  // A peer in the registry, resolved to `port` on the loopback.
  std::shared_ptr<QVHandoffServerInfo> addPeer(const std::string& name, const QVData& key, uint16_t port) {
    peers_.push_back(std::make_shared<QVStandInNetService>(name));
    manager_->addRemoteServerInfoForService(peers_.back(), key);
    auto serverInfo = manager_->serverInfoForDeviceName(name);
    serverInfo->setHTTPAddress(fmt::format("http://127.0.0.1:{}", port));
    return serverInfo;
  }

  // How the peer's tabs list describes one of its documents.
  static std::shared_ptr<QVHandoffDocumentInfo> remote(const QVHandoffDocumentInfo& local,
                                                       const std::string& device = "Studio") {
    auto documentInfo = local.copy();
    documentInfo->setDeviceName(device);
    documentInfo->setFileSize(std::filesystem::file_size(local.filePath()));
    documentInfo->setFileModificationDate(
        QVHandoffManager::latestFileModificationDateForFileAtPath(local.filePath()));
    return documentInfo;
  }

  // The handlers of one transfer, each recording its calls; `onProgress` runs inside the progress handler.
  template <class Start>
  std::shared_ptr<QVTransferOutcome> start(Start&& transfer, std::function<void()> onProgress = {}) {
    auto outcome = std::make_shared<QVTransferOutcome>();
    transfer(
        [outcome, onProgress](float progress) {
          outcome->progress.push_back(progress);
          if (onProgress) onProgress();
        },
        [outcome](const std::string& path) { outcome->completions.push_back(path); },
        [outcome](const QVError& error) { outcome->errors.push_back(error); });
    return outcome;
  }
  std::shared_ptr<QVTransferOutcome> handoff(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                             std::function<void()> onProgress = {}) {
    return start(
        [&](auto... handlers) { manager_->handoffRemoteDocumentWithInfo(documentInfo, handlers...); },
        std::move(onProgress));
  }
  std::shared_ptr<QVTransferOutcome> saveBack(const std::string& path,
                                              const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                              std::function<void()> onProgress = {}) {
    return start([&](auto... handlers) { manager_->saveBackFileAtPath(path, documentInfo, handlers...); },
                 std::move(onProgress));
  }
  // Long enough for a late handler call or notification over the loopback to show.
  static void settle() {
    QVRunMainQueueUntil([] { return false; }, std::chrono::milliseconds(300));
  }

  std::vector<std::shared_ptr<QVStandInNetService>> peers_;
};
