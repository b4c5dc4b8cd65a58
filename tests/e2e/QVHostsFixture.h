// SPDX-License-Identifier: MIT
#pragma once
// Installations of the `qvhandoff` host in network namespaces made by the test: each runs `serve` with
// the embedded stack on its own interface and a cache folder of its own; the test drives them on stdin
// and reads their events.

#include "support/QVNamespaceTest.h"

#include <filesystem>

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

// A peer list in which `device` shows exactly `documents`, the one at `active` in front.
inline std::function<bool(const Json&)> lists(const std::string& device, std::vector<std::string> documents,
                                              int64_t active) {
  return [=](const Json& peers) {
    const Json* server = peer(peers, device);
    if (!server || (*server)["activeIndex"] != active) return false;
    std::vector<std::string> paths;
    for (const auto& document : (*server)["documents"])
      paths.push_back(document["path"]);
    return paths == documents;
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

class QVHostsFixture : public QVNamespaceTest {
protected:
  using Json = nlohmann::json;

  void SetUp() override {
    if (std::string(QVHosts::kTool).empty()) GTEST_SKIP() << "the qvhandoff tool is not built";
    QVNamespaceTest::SetUp();
  }

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
  // share a namespace must share it); with them: beside that host's bus and mDNS daemon, in auto mode,
  // which must choose the daemon.
  std::vector<std::string> tool(size_t index, const std::vector<std::string>& arguments,
                                const std::string& containerPath,
                                const QVChildProcess* daemons = nullptr) const {
    const auto& h = host(index);
    std::vector<std::string> argv = {"ip", "netns", "exec", h.netns};
    if (daemons) argv = {"nsenter", "-t", std::to_string(daemons->pid()), "-m", "-n"};
    argv.insert(argv.end(),
                {"env", "XDG_CACHE_HOME=" + work_.file("cache-" + h.letter),
                 "XDG_STATE_HOME=" + work_.file("state-" + h.letter), QVHosts::kTool, "--container",
                 containerPath, "--product-name", "Host " + h.letter, "--log-level", "debug", "--dnssd"});
    if (daemons) {
      argv.push_back("auto");
    } else {
      argv.insert(argv.end(), {"embedded", "--interface", h.interface, "--host-name", "host-" + h.letter});
    }
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }

  QVChildProcess& serve(size_t index, const std::vector<std::string>& files, const std::string& containerPath,
                        const QVChildProcess* daemons = nullptr) {
    std::vector<std::string> arguments = {"serve"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    return start(host(index).letter, tool(index, arguments, containerPath, daemons));
  }

  // A one-shot command on host `index`: its exit status, its stdout in `output`.
  int oneShot(size_t index, const std::vector<std::string>& arguments, std::string* output,
              const std::string& containerPath = {}) {
    const std::string log =
        work_.file(host(index).letter + "-oneshot-" + std::to_string(++oneShots_) + ".log");
    std::vector<std::string> argv = {"sh", "-c", "exec \"$@\" 2>\"$0\"", log};
    const auto command = tool(index, arguments, containerPath.empty() ? container() : containerPath);
    argv.insert(argv.end(), command.begin(), command.end());
    return QVRunCommand(argv, output);
  }

  // `serve --no-input` on host `index` with nothing on its stdin: it must run on as a service would.
  QVChildProcess& service(size_t index, const std::vector<std::string>& arguments,
                          const std::string& containerPath) {
    std::vector<std::string> serveArguments = {"serve", "--no-input"};
    serveArguments.insert(serveArguments.end(), arguments.begin(), arguments.end());
    std::vector<std::string> argv = {"sh", "-c", "exec \"$@\" </dev/null", "sh"};
    const auto command = tool(index, serveArguments, containerPath);
    argv.insert(argv.end(), command.begin(), command.end());
    return start(host(index).letter, argv);
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

  size_t oneShots_ = 0;
};
