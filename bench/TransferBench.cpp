// SPDX-License-Identifier: MIT
// Both ends of a transfer as two processes, so that each one's peak memory is its own:
//
//   qvhandoff_bench_transfer serve KEYHEX              listens on 127.0.0.1, prints its port, serves until
//                                                      standard input closes
//   qvhandoff_bench_transfer get PORT KEYHEX PATH      hands off the peer's document at PATH
//   qvhandoff_bench_transfer save-back PORT KEYHEX LOCAL REMOTE
//                                                      saves LOCAL back over the peer's REMOTE
//
// Each prints one line "<mode> bytes=N seconds=S MBps=R peakRSSKiB=K" (peak RSS from VmHWM) on exit.
// Temporary copies go to $TMPDIR, handed-off copies below $XDG_CACHE_HOME: the script points both at
// its own folder.

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVNetService.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffHTTPServer.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// The peer without DNS-SD: found and resolved by hand.
class BenchPeerService : public QVNetService {
public:
  std::string name() const override { return "BenchPeer"; }
  std::string description() const override { return "BenchPeer"; }
  void resolveWithTimeout(std::chrono::milliseconds) override {}
  void stop() override {}
  void startMonitoring() override {}
  void stopMonitoring() override {}
  QVData TXTRecordData() const override { return {}; }
};

long peakRSSKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

QVData keyFromHex(const std::string& hex) {
  QVData key;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    key.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return key;
}

void report(const char* mode, uint64_t bytes, Clock::duration elapsed) {
  const double seconds = std::chrono::duration<double>(elapsed).count();
  fmt::print("{} bytes={} seconds={:.3f} MBps={:.1f} peakRSSKiB={}\n", mode, bytes, seconds,
             static_cast<double>(bytes) / seconds / 1e6, peakRSSKiB());
}

int serve(const QVData& key) {
  QVHandoffHTTPServer server;
  server.setInterface("127.0.0.1");
  server.setAES256Key(key);
  server.setContext(QVHandoffManager::defaultManager()->serverContext());
  if (!server.start(nullptr)) return 1;
  fmt::print("{}\n", server.port());
  std::fflush(stdout);
  // The save back's notifications wait for the main thread; standard input closing ends the run.
  std::thread([] {
    for (std::string line; std::getline(std::cin, line);) {
    }
    QVMainQueue::main().post([] { QVMainQueue::main().stop(); });
  }).detach();
  QVMainQueue::main().run();
  server.stop();
  fmt::print("serve peakRSSKiB={}\n", peakRSSKiB());
  return 0;
}

// Runs one transfer on the manager's client against the peer at `port`.
int transfer(const char* mode, uint16_t port, const QVData& key, const std::string& remotePath,
             const std::string& localPath) {
  const auto manager = QVHandoffManager::defaultManager();
  const auto service = std::make_shared<BenchPeerService>();
  manager->addRemoteServerInfoForService(service, key);
  manager->serverInfoForDeviceName(service->name())->setHTTPAddress(fmt::format("http://127.0.0.1:{}", port));

  auto documentInfo = QVHandoffDocumentInfo::make();
  documentInfo->setFilePath(remotePath);
  documentInfo->setDeviceName(service->name());
  const auto attributes = QVAttributesOfItem(localPath.empty() ? remotePath : localPath, nullptr);
  if (!attributes) return 1;
  documentInfo->setFileSize(attributes->fileSize);

  bool done = false;
  bool failed = false;
  std::string copyPath;
  const auto completion = [&](const std::string& path) {
    done = true;
    copyPath = path;
  };
  const auto error = [&](const QVError& error) {
    done = failed = true;
    fmt::print(stderr, "{} failed: {}\n", mode, error.description());
  };
  const auto start = Clock::now();
  if (localPath.empty()) {
    manager->handoffRemoteDocumentWithInfo(documentInfo, nullptr, completion, error);
  } else {
    manager->saveBackFileAtPath(localPath, documentInfo, nullptr, completion, error);
  }
  QVMainQueue::main().runUntil([&] { return done; }, std::chrono::minutes(10));
  if (!done || failed) return 1;
  report(mode, attributes->fileSize, Clock::now() - start);
  // The handed-off copy is not wanted; a saved-back copy is the caller's own file.
  if (localPath.empty()) std::remove(copyPath.c_str());
  manager->removeRemoteServerInfoForService(service);
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc == 3) return serve(keyFromHex(argv[2]));
  if (mode == "get" && argc == 5)
    return transfer("get", static_cast<uint16_t>(std::stoi(argv[2])), keyFromHex(argv[3]), argv[4], "");
  if (mode == "save-back" && argc == 6)
    return transfer("save-back", static_cast<uint16_t>(std::stoi(argv[2])), keyFromHex(argv[3]), argv[5],
                    argv[4]);
  std::fprintf(stderr, "usage: %s serve KEYHEX | get PORT KEYHEX PATH | save-back PORT KEYHEX LOCAL REMOTE\n",
               argv[0]);
  return 2;
}
