// SPDX-License-Identifier: MIT
#pragma once
// The HTTP client: one background thread (the session's serial data queue) runs every transfer of the
// session. Tasks are made and resumed on any thread, usually the main one; data and response callbacks
// run on the session's thread; completions run on the main queue.
//
// Destroying the session ends it: its thread is joined after every outstanding task has been finished
// with -999, and those completions are delivered on the main queue like any other. A task resumed after
// that completes with -999 too. The session must not be destroyed from its own callbacks.

#include "Foundation/QVTypes.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

class QVHTTPSessionEngine;
class QVHTTPURLResponse;

class QVHTTPSessionManager {
public:
  // Called for every chunk of every task of the session, in arrival order, on the session's thread.
  using DataTaskDidReceiveDataBlock =
      std::function<void(QVHTTPSessionManager& session, const std::shared_ptr<QVURLSessionDataTask>& task,
                         std::span<const uint8_t> data)>;
  // Called once per task when its response head is complete, before its first chunk, on the session's thread.
  using DataTaskDidReceiveResponseBlock =
      std::function<void(QVHTTPSessionManager& session, const std::shared_ptr<QVURLSessionDataTask>& task,
                         const QVHTTPURLResponse& response)>;

  QVHTTPSessionManager();
  ~QVHTTPSessionManager();
  QVHTTPSessionManager(const QVHTTPSessionManager&) = delete;
  QVHTTPSessionManager& operator=(const QVHTTPSessionManager&) = delete;

  // A suspended task; nothing is sent before resume().
  std::shared_ptr<QVURLSessionDataTask> dataTaskWithRequest(
      const QVURLRequest& request, QVURLSessionDataTask::Completion completionHandler,
      QVURLSessionDataTask::BodyDelivery bodyDelivery = QVURLSessionDataTask::BodyDelivery::Buffered);

  // One slot each for the whole session: setting replaces, an empty function clears. Safe from any thread;
  // a chunk already being delivered may still reach the previous callback.
  void setDataTaskDidReceiveDataBlock(DataTaskDidReceiveDataBlock block);
  void setDataTaskDidReceiveResponseBlock(DataTaskDidReceiveResponseBlock block);

  // The process-wide host table: a host (".local" names included) is connected to at the address given
  // here instead of being looked up. Case and one trailing dot of the host do not matter; an empty address
  // removes the entry.
  static void setAddressForHost(const std::string& host, const std::string& address);
  static std::optional<std::string> addressForHost(const std::string& host);

private:
  std::shared_ptr<QVHTTPSessionEngine> engine_;
};
