#pragma once
// Installations of the `qvhandoff` host in network namespaces made by the test: each runs `serve` with
// the embedded stack on its own interface and a cache folder of its own; the test drives them on stdin
// and reads their events.

#include "support/QVChildProcess.h"
#include "support/QVNetworkNamespaces.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace QVHosts {

using Json = nlohmann::json;

#ifdef QVHANDOFF_TOOL
inline constexpr const char* kTool = QVHANDOFF_TOOL;
#else
inline constexpr const char* kTool = "";
#endif

// Bounds, not expectations: publication takes about 2 s, a tabs list a few milliseconds more.
constexpr std::chrono::milliseconds kDiscovery{20000};

inline QVChildProcess::Match event(const std::string& name) {
  return QVChildProcess::event(name);
}

// The peer named `device` in a list of peers, or none.
inline const Json* peer(const Json& peers, const std::string& device) {
  for (const auto& server : peers) {
    if (server.value("device", "") == device) return &server;
  }
  return nullptr;
}

inline std::vector<std::string> paths(const Json& server) {
  std::vector<std::string> result;
  for (const auto& document : server["documents"])
    result.push_back(document["path"]);
  return result;
}

// A peer list in which `device` shows exactly `documents`, the one at `active` in front.
inline std::function<bool(const Json&)> lists(const std::string& device, std::vector<std::string> documents,
                                              int64_t active) {
  return [=](const Json& peers) {
    const Json* server = peer(peers, device);
    return server && paths(*server) == documents && (*server)["activeIndex"] == active;
  };
}

inline std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

// A notification whose userInfo holds `value` under `key`.
inline QVChildProcess::Match notification(const std::string& name, const std::string& key,
                                          const Json& value) {
  return [=](const Json& e) {
    return e.value("event", "") == name && e["userInfo"].contains(key) && e["userInfo"][key] == value;
  };
}

} // namespace QVHosts

class QVHostsFixture : public ::testing::Test {
protected:
  using Json = nlohmann::json;

  void SetUp() override {
    if (std::string(QVHosts::kTool).empty()) GTEST_SKIP() << "the qvhandoff tool is not built";
    if (auto reason = QVNetworkNamespaces::unavailableReason()) GTEST_SKIP() << *reason;
  }

  void TearDown() override {
    // End the hosts first so that their logs are complete, sanitizer reports included.
    std::vector<std::pair<std::string, std::vector<Json>>> events;
    for (const auto& [label, host] : hosts_)
      events.emplace_back(label, host->events());
    hosts_.clear();
    for (const auto& entry : std::filesystem::directory_iterator(work_.path())) {
      if (entry.path().extension() != ".log") continue;
      std::ifstream file(entry.path());
      const std::string log(std::istreambuf_iterator<char>(file), {});
      EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << entry.path() << ":\n" << log;
      EXPECT_EQ(log.find("runtime error"), std::string::npos) << entry.path() << ":\n" << log;
      if (HasFailure()) std::cerr << "---- " << entry.path().filename() << "\n" << log;
    }
    if (!HasFailure()) return;
    for (const auto& [label, list] : events) {
      std::cerr << "---- events of " << label << "\n";
      for (const auto& e : list)
        std::cerr << e.dump() << "\n";
    }
  }

  bool makeHosts(size_t count) {
    namespaces_ = std::make_unique<QVNetworkNamespaces>(QVHANDOFF_NETNS_SCRIPT, count);
    EXPECT_EQ(namespaces_->failure(), "");
    return namespaces_->failure().empty();
  }

  const QVNetworkNamespaces::Host& host(size_t index) const { return namespaces_->host(index); }

  // The folder the hosts share, as a sync client would keep it; `name` gives another one.
  std::string container(const std::string& name = "container") const {
    std::filesystem::create_directories(work_.path() / name);
    return work_.file(name);
  }

  // A document of host `index` with `content`.
  std::string document(size_t index, const std::string& name, const std::string& content) const {
    const auto folder = work_.path() / ("documents-" + host(index).letter);
    std::filesystem::create_directories(folder);
    const std::string path = (folder / name).string();
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  // The command that runs `qvhandoff` on host `index` with a cache folder of its own. Without `daemons`:
  // in the host's namespace, the embedded stack on its interface under the host's own name (stacks that
  // share a namespace must share it); with them: beside that host's bus and mDNS daemon.
  std::vector<std::string> tool(size_t index, const std::vector<std::string>& arguments,
                                const std::string& containerPath,
                                const QVChildProcess* daemons = nullptr) const {
    const auto& h = host(index);
    std::vector<std::string> argv;
    if (daemons) {
      argv = {"nsenter", "-t", std::to_string(daemons->pid()), "-m", "-n"};
    } else {
      argv = {"ip", "netns", "exec", h.netns};
    }
    argv.insert(argv.end(),
                {"env", "XDG_CACHE_HOME=" + work_.file("cache-" + h.letter), QVHosts::kTool, "--container",
                 containerPath, "--product-name", "Host " + h.letter, "--log-level", "debug"});
    if (daemons) {
      argv.insert(argv.end(), {"--dnssd", "daemon"});
    } else {
      argv.insert(argv.end(),
                  {"--dnssd", "embedded", "--interface", h.interface, "--host-name", "host-" + h.letter});
    }
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }

  // A system bus and an mDNS daemon for host `index`, in a mount namespace of their own.
  QVChildProcess& daemons(size_t index) {
    const auto& h = host(index);
    return start(h.letter + "-daemons",
                 {"ip", "netns", "exec", h.netns, QVHANDOFF_DNSSD_DAEMONS, "host-" + h.letter, h.interface});
  }

  QVChildProcess& serve(size_t index, const std::vector<std::string>& files, const std::string& containerPath,
                        const QVChildProcess* daemons = nullptr) {
    std::vector<std::string> arguments = {"serve"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    return start(host(index).letter, tool(index, arguments, containerPath, daemons));
  }

  QVChildProcess& start(const std::string& label, const std::vector<std::string>& argv) {
    const std::string log = work_.file(label + "-" + std::to_string(hosts_.size()) + ".log");
    hosts_.emplace_back(label, std::make_unique<QVChildProcess>(argv, log));
    EXPECT_TRUE(hosts_.back().second->started());
    return *hosts_.back().second;
  }

  // A one-shot command on host `index`: its exit status, its stdout in `output`.
  int oneShot(size_t index, const std::vector<std::string>& arguments, std::string* output) {
    const std::string log =
        work_.file(host(index).letter + "-oneshot-" + std::to_string(++oneShots_) + ".log");
    std::vector<std::string> argv = {"sh", "-c", "exec \"$@\" 2>\"$0\"", log};
    const auto command = tool(index, arguments, container());
    argv.insert(argv.end(), command.begin(), command.end());
    return QVRunCommand(argv, output);
  }

  // The name a host was published under.
  static std::string publishedName(QVChildProcess& host) {
    const auto published = host.waitFor(QVHosts::event("published"), QVHosts::kDiscovery);
    return published ? (*published)["name"].get<std::string>() : std::string();
  }

  // The first servers notification of `host`, from event `from` on, whose peers pass `match`.
  static std::optional<Json> waitForPeers(QVChildProcess& host, const std::function<bool(const Json&)>& match,
                                          size_t from = 0,
                                          std::chrono::milliseconds timeout = QVHosts::kDiscovery) {
    return host.waitFor(
        [&](const Json& e) {
          return e.value("event", "") == "QVHandoffManagerDidUpdateServersInfoNotification" &&
                 match(e["peers"]);
        },
        timeout, from);
  }

  QVTemporaryFolder work_;
  std::unique_ptr<QVNetworkNamespaces> namespaces_;
  // Declared after the namespaces: the hosts end before their namespaces go.
  std::vector<std::pair<std::string, std::unique_ptr<QVChildProcess>>> hosts_;
  size_t oneShots_ = 0;
};
