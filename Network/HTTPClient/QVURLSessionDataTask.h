// SPDX-License-Identifier: MIT
#pragma once
// An HTTP request in flight, made by a QVHTTPSessionManager. It starts suspended; resume() hands it to
// the session's thread. Its completion runs exactly once, on the main queue. Any thread may resume or
// cancel it, the session's own thread included (from within a data callback).

#include "Foundation/QVTypes.h"
#include "Network/HTTPClient/QVURLRequest.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class QVHTTPURLResponse;

class QVURLSessionDataTask : public std::enable_shared_from_this<QVURLSessionDataTask> {
public:
  enum class State { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };

  // Buffered: the body is gathered for the completion (and also shown to the session's data callback).
  // Streamed: the body only goes through the session's data callback and the completion gets none, so
  // a download of any size takes no memory here.
  enum class BodyDelivery { Buffered, Streamed };

  // The response is null when none came; the body is absent for streamed tasks and when no response
  // came. The error is absent exactly when the status was 200-299.
  using Completion = std::function<void(std::shared_ptr<const QVHTTPURLResponse> response,
                                        std::optional<QVData> body, std::optional<QVError> error)>;

  // What a task needs from the session that runs it.
  class Scheduler {
  public:
    virtual ~Scheduler() = default;
    virtual void scheduleTask(std::shared_ptr<QVURLSessionDataTask> task) = 0;
    virtual void taskWasCancelled() = 0;
  };

  QVURLSessionDataTask(const QVURLSessionDataTask&) = delete;
  QVURLSessionDataTask& operator=(const QVURLSessionDataTask&) = delete;
  virtual ~QVURLSessionDataTask();

  uint64_t taskIdentifier() const { return identifier_; }
  const QVURLRequest& originalRequest() const { return request_; }
  BodyDelivery bodyDelivery() const { return bodyDelivery_; }
  State state() const;
  // Set on the session's thread once the response head is complete, before the first body byte.
  std::shared_ptr<const QVHTTPURLResponse> response() const;

  virtual void resume();
  // Once called before the completion has run, the completion reports -999 (QVURLErrorDomain), even
  // when the transfer had already ended otherwise. Later calls do nothing.
  virtual void cancel();

protected:
  // A task of no session: stands in for a real one in tests of the code that holds tasks.
  QVURLSessionDataTask() = default;

private:
  friend class QVHTTPSessionManager;
  friend class QVHTTPSessionEngine;

  QVURLSessionDataTask(uint64_t identifier, QVURLRequest request, BodyDelivery bodyDelivery,
                       Completion completion, std::weak_ptr<Scheduler> scheduler);

  bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }
  void setResponse(std::shared_ptr<const QVHTTPURLResponse> response);
  // Posts the completion to the main queue; only the first call counts.
  void finish(std::shared_ptr<const QVHTTPURLResponse> response, std::optional<QVData> body,
              std::optional<QVError> error);
  void deliver(std::shared_ptr<const QVHTTPURLResponse> response, std::optional<QVData> body,
               std::optional<QVError> error);

  const uint64_t identifier_ = 0;
  const QVURLRequest request_;
  const BodyDelivery bodyDelivery_ = BodyDelivery::Buffered;
  const std::weak_ptr<Scheduler> scheduler_;

  mutable std::mutex mutex_;
  State state_ = State::Suspended;
  bool finished_ = false;
  std::atomic<bool> cancelled_ = false; // read lock-free by the transfer callbacks
  std::shared_ptr<const QVHTTPURLResponse> response_;
  Completion completion_;
};
