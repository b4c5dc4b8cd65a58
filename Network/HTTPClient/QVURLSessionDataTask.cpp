// SPDX-License-Identifier: MIT
#include "Network/HTTPClient/QVURLSessionDataTask.h"

#include "Foundation/QVMainQueue.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"

QVURLSessionDataTask::QVURLSessionDataTask(uint64_t identifier, QVURLRequest request,
                                           BodyDelivery bodyDelivery, Completion completion,
                                           std::weak_ptr<Scheduler> scheduler)
    : identifier_(identifier), request_(std::move(request)), bodyDelivery_(bodyDelivery),
      scheduler_(std::move(scheduler)), completion_(std::move(completion)) {}

QVURLSessionDataTask::~QVURLSessionDataTask() = default;

QVURLSessionDataTask::State QVURLSessionDataTask::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::shared_ptr<const QVHTTPURLResponse> QVURLSessionDataTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

void QVURLSessionDataTask::resume() {
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::Suspended) return;
    state_ = State::Running;
  }
  auto scheduler = scheduler_.lock();
  if (!scheduler) {
    // The session is gone: the task ends as its outstanding tasks did.
    finish(nullptr, std::nullopt, QVError{QVURLErrorDomain, QVURLError::Cancelled, {}});
    return;
  }
  scheduler->scheduleTask(shared_from_this());
}

void QVURLSessionDataTask::cancel() {
  State previous;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::Completed || cancelled_) return;
    cancelled_ = true;
    previous = state_;
    state_ = State::Canceling;
  }
  if (previous == State::Suspended) {
    // Never handed to the session: nobody else will finish it.
    finish(nullptr, std::nullopt, QVError{QVURLErrorDomain, QVURLError::Cancelled, {}});
    return;
  }
  if (auto scheduler = scheduler_.lock()) scheduler->taskWasCancelled();
}

void QVURLSessionDataTask::setResponse(std::shared_ptr<const QVHTTPURLResponse> response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void QVURLSessionDataTask::finish(std::shared_ptr<const QVHTTPURLResponse> response,
                                  std::optional<QVData> body, std::optional<QVError> error) {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = true;
  }
  QVMainQueue::main().post([self = shared_from_this(), response = std::move(response), body = std::move(body),
                            error = std::move(error)]() mutable {
    self->deliver(std::move(response), std::move(body), std::move(error));
  });
}

void QVURLSessionDataTask::deliver(std::shared_ptr<const QVHTTPURLResponse> response,
                                   std::optional<QVData> body, std::optional<QVError> error) {
  Completion completion;
  {
    // Deciding under the lock that cancel() takes makes a cancel either win here or come too late.
    std::lock_guard lock(mutex_);
    state_ = State::Completed;
    if (cancelled_) {
      body.reset();
      error = QVError{QVURLErrorDomain, QVURLError::Cancelled, {}};
    }
    completion = std::move(completion_);
  }
  if (completion) completion(std::move(response), std::move(body), std::move(error));
}
