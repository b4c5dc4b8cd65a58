// SPDX-License-Identifier: MIT
#pragma once
// What both example hosts do, whatever loop they run: open a document and publish it, wait for a peer that
// lists one, hand it off, edit the copy, save it back, and stop the service from inside the save back's
// completion. The host supplies its loop's `quit`.

#include <QVHandoff/QVHandoff.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

class QVExampleWalk {
public:
  struct Options {
    std::string container; // the synced folder with the shared key
    std::string document;  // the document this host has open
    std::string productName = "example-host";
  };

  QVExampleWalk(Options options, std::function<void(int status)> quit)
      : options_(std::move(options)), quit_(std::move(quit)) {}

  // Call on the loop's thread after installing the loop's adapter.
  void start() {
    QVHandoffSetLogHandler([](QVHandoffLogLevel level, const std::string& source,
                              const std::string& operation, const std::string& message) {
      if (level >= QVHandoffLogLevel::Warning)
        std::fprintf(stderr, "log %s %s: %s\n", source.c_str(), operation.c_str(), message.c_str());
    });
    QVHandoffManager::setProductName(options_.productName);
    QVHandoffiCloudDocumentsPresenter::setContainerPath(options_.container);
    manager_ = QVHandoffManager::defaultManager();
    // Posted from the main queue or from a connection's thread: the handler only looks, on the loop.
    updates_ = QVNotificationObservation(
        QVNotificationCenter::defaultCenter(), QVHandoffManagerDidUpdateServersInfoNotification,
        manager_.get(),
        [this](const QVNotification&) { QVMainQueue::main().post([this] { peersChanged(); }); });
    manager_->setMetaStorages({QVHandoffDocumentMetaStorage::storageWithContainerURL(options_.container)});
    auto document = QVHandoffDocumentInfo::make();
    document->setFilePath(options_.document);
    manager_->setLocalDocumentsInfo(std::make_shared<const QVHandoffManager::DocumentInfoList>(
        QVHandoffManager::DocumentInfoList{document}));
    manager_->setCurrentLocalDocumentIndex(0);
    manager_->startHandoffService();
    std::printf("published %s\n", options_.document.c_str());
  }

  // Ends the walk without a peer (the host's timeout): stops the service and quits with `status`.
  void finish(int status) {
    if (finished_) return;
    finished_ = true;
    updates_ = QVNotificationObservation();
    if (manager_) manager_->stopHandoffService();
    quit_(status);
  }

private:
  void peersChanged() {
    if (started_ || finished_) return;
    auto peers = manager_->remoteServersInfoPassingTest([](const auto&, uint64_t, bool*) { return true; });
    if (!peers) return;
    for (const auto& peer : *peers) {
      std::printf("peer %s lists %zu document(s)\n", peer->deviceName().c_str(),
                  peer->documentsInfo().size());
      if (peer->documentsInfo().empty()) continue;
      started_ = true;
      handoff(peer->documentsInfo().front());
      return;
    }
  }

  void handoff(const std::shared_ptr<QVHandoffDocumentInfo>& remote) {
    std::printf("handoff %s\n", remote->filePath().c_str());
    manager_->handoffRemoteDocumentWithInfo(
        remote, nullptr, [this](const std::string& copy) { edit(copy); },
        [this](const QVError& error) { fail("handoff", error); });
  }

  void edit(const std::string& copy) {
    std::printf("copy %s\n", copy.c_str());
    {
      std::ofstream out(copy, std::ios::app);
      out << "edited by " << options_.productName << "\n";
    }
    auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
    if (!tags) {
      std::fprintf(stderr, "the copy %s has no handoff tags\n", copy.c_str());
      finish(1);
      return;
    }
    manager_->saveBackFileAtPath(
        copy, tags, nullptr,
        [this](const std::string& path) {
          std::printf("saved back %s\n", path.c_str());
          // Stopping from inside the completion returns without waiting on the loop.
          finish(0);
        },
        [this](const QVError& error) { fail("save back", error); });
  }

  void fail(const char* what, const QVError& error) {
    std::fprintf(stderr, "%s failed: %s %lld\n", what, error.domain.c_str(),
                 static_cast<long long>(error.code));
    finish(1);
  }

  Options options_;
  std::function<void(int)> quit_;
  std::shared_ptr<QVHandoffManager> manager_;
  QVNotificationObservation updates_;
  bool started_ = false;
  bool finished_ = false;
};

// What a host's command line gives: "HOST CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]".
struct QVExampleArguments {
  QVExampleWalk::Options options;
  unsigned waitSeconds = 10;
  bool requirePeer = false;

  // False, with the usage on stderr, on bad arguments.
  bool parse(int argc, char** argv) {
    options.productName = argv[0];
    if (const auto slash = options.productName.rfind('/'); slash != std::string::npos)
      options.productName.erase(0, slash + 1);
    bool good = argc >= 3;
    for (int i = 3; good && i < argc; ++i) {
      const std::string arg = argv[i];
      if (arg == "--wait" && i + 1 < argc) {
        waitSeconds = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
      } else {
        good = arg == "--require-peer";
        requirePeer = requirePeer || good;
      }
    }
    if (!good) {
      std::fprintf(stderr, "usage: %s CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]\n", argv[0]);
      return false;
    }
    options.container = argv[1];
    options.document = argv[2];
    return true;
  }
};
