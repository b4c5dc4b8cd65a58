// A DNS-SD probe for the namespace tests and the discovery benchmark: run inside a network namespace, it
// publishes a service and/or browses a type and prints one JSON object per event on stdout. Commands on
// stdin, one per line: "txt key=value...", "stop", "publish", "resolve NAME TYPE SECONDS", "quit". It exits
// on "quit", at the end of stdin, or after --duration seconds, whichever comes first.

#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVDNSSDConfiguration.h"
#include "Network/DNSSD/QVDNSSDHostRegistry.h"
#include "Network/DNSSD/QVNetService.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"
#include "Network/DNSSD/QVNetServiceBrowserDelegate.h"
#include "Network/DNSSD/QVNetServiceDelegate.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

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

const char* kUsage =
    "usage: qvhandoff_dnssd_probe [--mode auto|daemon|embedded] [--interface IF]... [--host-name NAME]\n"
    "       [--type TYPE] [--publish NAME] [--port N] [--txt KEY=VALUE]... [--browse] [--resolve]\n"
    "       [--monitor] [--duration SECONDS]\n";

int64_t wallMicroseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void emit(nlohmann::json event) {
  event["us"] = wallMicroseconds();
  std::cout << event.dump() << std::endl;
}

nlohmann::json jsonFromTXT(const QVData& data) {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, value] : QVNetService::dictionaryFromTXTRecordData(data)) {
    object[key] = std::string(value.begin(), value.end());
  }
  return object;
}

void addTXTEntry(QVTXTRecordDictionary& txt, const std::string& entry) {
  const size_t equals = entry.find('=');
  const std::string value = equals == std::string::npos ? "" : entry.substr(equals + 1);
  txt[entry.substr(0, equals)] = QVData(value.begin(), value.end());
}

std::optional<Options> parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    std::optional<std::string> argument;
    if (option == "--browse") {
      options.browse = true;
    } else if (option == "--resolve") {
      options.resolve = true;
    } else if (option == "--monitor") {
      options.monitor = true;
    } else if (!(argument = value())) {
      return std::nullopt;
    } else if (option == "--mode") {
      auto mode = QVDNSSDConfiguration::modeFromString(*argument);
      if (!mode) return std::nullopt;
      options.configuration.mode = *mode;
    } else if (option == "--interface") {
      options.configuration.interfaces.push_back(*argument);
    } else if (option == "--host-name") {
      options.configuration.hostName = *argument;
    } else if (option == "--type") {
      options.type = *argument;
    } else if (option == "--publish") {
      options.publishName = *argument;
    } else if (option == "--port") {
      options.port = std::stoi(*argument);
    } else if (option == "--txt") {
      addTXTEntry(options.txt, *argument);
    } else if (option == "--duration") {
      options.duration = std::stod(*argument);
    } else {
      return std::nullopt;
    }
  }
  return options;
}

class Probe : public QVNetServiceDelegate,
              public QVNetServiceBrowserDelegate,
              public std::enable_shared_from_this<Probe> {
public:
  explicit Probe(Options options) : options_(std::move(options)) {}

  void start() {
    const auto self = shared_from_this();
    if (options_.publishName) {
      published_ =
          std::make_shared<QVNetService>("local", options_.type, *options_.publishName, options_.port);
      published_->setDelegate(self);
      published_->setTXTRecordData(
          QVNetService::dataFromTXTRecordDictionary(options_.txt).value_or(QVData()));
      published_->publish();
      emit({{"event", "publishing"}, {"name", *options_.publishName}});
    }
    if (options_.browse) {
      browser_ = std::make_shared<QVNetServiceBrowser>();
      browser_->setDelegate(self);
      browser_->searchForServicesOfType(options_.type, "local");
      emit({{"event", "browsing"}, {"type", options_.type}});
    }
  }

  // One command line from stdin; false to quit.
  bool perform(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "quit") return false;
    if (command == "txt" && published_) {
      std::string entry;
      while (words >> entry)
        addTXTEntry(options_.txt, entry);
      const QVData data = QVNetService::dataFromTXTRecordDictionary(options_.txt).value_or(QVData());
      const bool updated = published_->setTXTRecordData(data);
      emit({{"event", "txtSet"}, {"updated", updated}, {"txt", jsonFromTXT(data)}});
    } else if (command == "stop" && published_) {
      published_->stop();
    } else if (command == "publish" && published_) {
      published_->publish();
      emit({{"event", "publishing"}, {"name", published_->name()}});
    } else if (command == "resolve") {
      std::string name;
      std::string type;
      double seconds = 0;
      words >> name >> type >> seconds;
      auto service = std::make_shared<QVNetService>("local", type, name);
      service->setDelegate(weak_from_this());
      service->resolveWithTimeout(std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)));
      found_[name] = service;
    } else if (!command.empty()) {
      emit({{"event", "unknownCommand"}, {"line", line}});
    }
    return true;
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
          {"registry", QVDNSSDHostRegistry::address(sender->hostName()).value_or("")},
          {"txt", jsonFromTXT(sender->TXTRecordData())}});
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
    emit({{"event", "found"},
          {"name", service->name()},
          {"type", service->type()},
          {"domain", service->domain()}});
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
  static int64_t code(const QVUserInfo& errorDict) {
    auto found = errorDict.find(QVNetServicesErrorCode);
    if (found == errorDict.end()) return 0;
    const int64_t* value = std::get_if<int64_t>(&found->second);
    return value ? *value : 0;
  }

  Options options_;
  std::shared_ptr<QVNetService> published_;
  std::shared_ptr<QVNetServiceBrowser> browser_;
  std::map<std::string, std::shared_ptr<QVNetService>> found_;
};

} // namespace

int main(int argc, char** argv) {
  auto options = parseOptions(argc, argv);
  if (!options) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  QVDNSSDConfiguration::setCurrent(options->configuration);
  QVMainQueue& queue = QVMainQueue::main();
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                             std::chrono::duration<double>(options->duration));

  auto probe = std::make_shared<Probe>(*options);
  // stdin is read on its own thread; its lines are handled on the main queue like every DNS-SD event.
  std::thread reader([&queue, probe] {
    std::string line;
    while (std::getline(std::cin, line)) {
      queue.post([probe, line] {
        if (!probe->perform(line)) gQuit = true;
      });
    }
    queue.post([] { gQuit = true; });
  });
  reader.detach();

  emit({{"event", "started"}, {"mode", QVDNSSDConfiguration::stringFromMode(options->configuration.mode)}});
  probe->start();
  queue.runUntil([] { return gQuit.load(); }, deadline - std::chrono::steady_clock::now());
  probe->finish();
  // Let the withdrawal go out before the engine shuts down with the process.
  queue.runUntil([] { return false; }, std::chrono::milliseconds(200));
  emit({{"event", "exit"}});
  return 0;
}
