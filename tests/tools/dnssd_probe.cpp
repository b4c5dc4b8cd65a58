// SPDX-License-Identifier: MIT
// A DNS-SD probe for the namespace tests and the discovery benchmark: run inside a network namespace, it
// publishes a service and/or browses a type and prints one JSON object per event on stdout. Options:
// --mode auto|daemon|embedded, --interface IF (repeated), --host-name NAME, --type TYPE, --publish NAME,
// --port N, --txt KEY=VALUE (repeated), --browse, --resolve, --monitor, --duration SECONDS. Commands on
// stdin, one per line: "txt key=value...", "stop", "publish", "quit". It exits
// on "quit", at the end of stdin, or after --duration seconds, whichever comes first.

#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVDNSSDConfiguration.h"
#include "Network/DNSSD/QVDNSSDEngine.h"
#include "Network/DNSSD/QVDNSSDHostRegistry.h"
#include "Network/DNSSD/QVNetService.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"
#include "Network/DNSSD/QVNetServiceBrowserDelegate.h"
#include "Network/DNSSD/QVNetServiceDelegate.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::atomic<bool> gQuit = false;

struct Options {
  QVDNSSDConfiguration configuration = QVDNSSDConfiguration::fromEnvironment();
  std::string type = "_qvhandoffprobe._tcp";
  std::optional<std::string> publishName;
  int port = 8080;
  QVTXTRecordDictionary txt;
  bool browse = false;
  bool resolve = false;
  bool monitor = false;
  double duration = 30;
};

// With the wall clock in microseconds, which the benchmark compares across processes.
void emit(nlohmann::json event) {
  event["us"] = std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
  std::cout << event.dump() << std::endl;
}

nlohmann::json jsonFromTXT(const QVData& data) {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, value] : QVNetService::dictionaryFromTXTRecordData(data))
    object[key] = std::string(value.begin(), value.end());
  return object;
}

void addTXTEntry(QVTXTRecordDictionary& txt, const std::string& entry) {
  const size_t equals = entry.find('=');
  const std::string value = equals == std::string::npos ? "" : entry.substr(equals + 1);
  txt[entry.substr(0, equals)] = QVData(value.begin(), value.end());
}

std::optional<Options> parseOptions(int argc, char** argv) {
  Options options;
  auto& configuration = options.configuration;
  bool valid = true;
  const std::map<std::string, bool*> flags = {
      {"--browse", &options.browse}, {"--resolve", &options.resolve}, {"--monitor", &options.monitor}};
  const std::map<std::string, std::function<void(const std::string&)>> settings = {
      {"--mode",
       [&](const std::string& value) {
         const auto mode = QVDNSSDConfiguration::modeFromString(value);
         valid = valid && mode;
         configuration.mode = mode.value_or(configuration.mode);
       }},
      {"--interface", [&](const std::string& value) { configuration.interfaces.push_back(value); }},
      {"--host-name", [&](const std::string& value) { configuration.hostName = value; }},
      {"--type", [&](const std::string& value) { options.type = value; }},
      {"--publish", [&](const std::string& value) { options.publishName = value; }},
      {"--port", [&](const std::string& value) { options.port = std::stoi(value); }},
      {"--txt", [&](const std::string& value) { addTXTEntry(options.txt, value); }},
      {"--duration", [&](const std::string& value) { options.duration = std::stod(value); }}};
  for (int i = 1; valid && i < argc; ++i) {
    if (flags.contains(argv[i])) {
      *flags.at(argv[i]) = true;
    } else if (settings.contains(argv[i]) && i + 1 < argc) {
      settings.at(argv[i])(argv[i + 1]);
      ++i;
    } else {
      valid = false;
    }
  }
  return valid ? std::optional(options) : std::nullopt;
}

int64_t code(const QVUserInfo& errorDict) {
  auto found = errorDict.find(QVNetServicesErrorCode);
  const int64_t* value = found == errorDict.end() ? nullptr : std::get_if<int64_t>(&found->second);
  return value ? *value : 0;
}

class Probe : public QVNetServiceDelegate,
              public QVNetServiceBrowserDelegate,
              public std::enable_shared_from_this<Probe> {
public:
  explicit Probe(Options options)
      : options_(std::move(options)), engine_(std::make_shared<QVDNSSDEngine>(options_.configuration)) {}

  void start() {
    if (options_.publishName) {
      published_ = std::make_shared<QVNetService>(engine_, "local", options_.type, *options_.publishName,
                                                  options_.port);
      published_->setDelegate(shared_from_this());
      published_->setTXTRecordData(
          QVNetService::dataFromTXTRecordDictionary(options_.txt).value_or(QVData()));
      perform("publish");
    }
    if (options_.browse) {
      browser_ = std::make_shared<QVNetServiceBrowser>(engine_);
      browser_->setDelegate(shared_from_this());
      browser_->searchForServicesOfType(options_.type, "local");
      emit({{"event", "browsing"}});
    }
  }

  // One command line from stdin; false to quit.
  bool perform(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "txt" && published_) {
      for (std::string entry; words >> entry;)
        addTXTEntry(options_.txt, entry);
      const QVData data = QVNetService::dataFromTXTRecordDictionary(options_.txt).value_or(QVData());
      published_->setTXTRecordData(data);
      emit({{"event", "txtSet"}, {"txt", jsonFromTXT(data)}});
    } else if (command == "stop" && published_) {
      published_->stop();
    } else if (command == "publish" && published_) {
      published_->publish();
      emit({{"event", "publishing"}, {"name", published_->name()}});
    }
    return command != "quit";
  }

  void finish() {
    if (browser_) browser_->stop();
    for (auto& [name, service] : found_)
      service->stopMonitoring();
    found_.clear();
    browser_.reset();
    published_.reset();
  }

  void netServiceDidPublish(const std::shared_ptr<QVNetService>& sender) override {
    emit({{"event", "published"}, {"name", sender->name()}});
  }
  void netServiceDidNotPublish(const std::shared_ptr<QVNetService>& sender,
                               const QVUserInfo& errorDict) override {
    emit({{"event", "notPublished"}, {"name", sender->name()}, {"code", code(errorDict)}});
  }
  void netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) override {
    emit({{"event", "resolved"},
          {"name", sender->name()},
          {"host", sender->hostName()},
          {"port", sender->port()},
          {"addresses", sender->addresses()},
          {"registry", QVDNSSDHostRegistry::address(sender->hostName()).value_or("")}});
  }
  void netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender,
                               const QVUserInfo& errorDict) override {
    emit({{"event", "notResolved"}, {"name", sender->name()}, {"code", code(errorDict)}});
  }
  void netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>& sender,
                                        const QVData& data) override {
    emit({{"event", "txt"}, {"name", sender->name()}, {"txt", jsonFromTXT(data)}});
  }
  void netServiceDidStop(const std::shared_ptr<QVNetService>& sender) override {
    emit({{"event", "stopped"}, {"name", sender->name()}});
  }

  void netServiceBrowserDidFindService(const std::shared_ptr<QVNetServiceBrowser>&,
                                       const std::shared_ptr<QVNetService>& service, bool) override {
    emit({{"event", "found"}, {"name", service->name()}});
    found_[service->name()] = service;
    service->setDelegate(weak_from_this());
    if (options_.monitor) service->startMonitoring();
    if (options_.resolve) service->resolveWithTimeout(std::chrono::seconds(30));
  }
  void netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>&,
                                         const std::shared_ptr<QVNetService>& service, bool) override {
    emit({{"event", "removed"}, {"name", service->name()}});
    service->stopMonitoring();
    found_.erase(service->name());
  }
  void netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>&,
                                     const QVUserInfo& errorDict) override {
    emit({{"event", "notSearch"}, {"code", code(errorDict)}});
  }

private:
  Options options_;
  std::shared_ptr<QVNetService> published_;
  std::shared_ptr<QVDNSSDEngine> engine_;
  std::shared_ptr<QVNetServiceBrowser> browser_;
  std::map<std::string, std::shared_ptr<QVNetService>> found_;
};

} // namespace

int main(int argc, char** argv) {
  auto options = parseOptions(argc, argv);
  if (!options) {
    std::cerr << "qvhandoff_dnssd_probe: bad arguments (the options are listed in its source)\n";
    return 2;
  }
  QVMainQueue& queue = QVMainQueue::main();
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                             std::chrono::duration<double>(options->duration));

  auto probe = std::make_shared<Probe>(*options);
  // stdin is read on its own thread; its lines are handled on the main queue like every DNS-SD event.
  std::thread([&queue, probe] {
    for (std::string line; std::getline(std::cin, line);) {
      queue.post([probe, line] {
        if (!probe->perform(line)) gQuit = true;
      });
    }
    queue.post([] { gQuit = true; });
  }).detach();

  probe->start();
  queue.runUntil([] { return gQuit.load(); }, deadline - std::chrono::steady_clock::now());
  probe->finish();
  // Let the withdrawal go out before the engine shuts down with the process.
  queue.runUntil([] { return false; }, std::chrono::milliseconds(200));
  return 0;
}
