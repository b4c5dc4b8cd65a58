// SPDX-License-Identifier: MIT
#include "Foundation/QVMainQueue.h"

#include "Foundation/QVLog.h"

#include <memory>
#include <unistd.h>

QV_LOG_SOURCE("Foundation/QVMainQueue")

QVMainQueue& QVMainQueue::main() {
  static QVMainQueue* shared = new QVMainQueue(); // lives as long as the process: threads may post late
  return *shared;
}

QVMainQueue::QVMainQueue() = default;

bool QVMainQueue::isMainThread() const {
  std::lock_guard lock(mutex_);
  if (mainThread_) return std::this_thread::get_id() == *mainThread_;
  return gettid() == getpid();
}

void QVMainQueue::post(Task task) {
  std::unique_lock lock(mutex_);
  if (dispatcher_.post) {
    auto post = dispatcher_.post;
    lock.unlock();
    post(std::move(task));
    return;
  }
  tasks_.push_back(std::move(task));
  wake_.notify_all();
}

QVMainQueue::TimerID QVMainQueue::postAfter(Clock::duration delay, Task task) {
  std::unique_lock lock(mutex_);
  const TimerID timer = nextTimer_++;
  timers_.emplace(Clock::now() + delay, std::make_pair(timer, std::move(task)));
  if (dispatcher_.postAfter) {
    // The host's loop only wakes us; the task stays here so that cancelTimer() keeps working.
    auto postAfter = dispatcher_.postAfter;
    lock.unlock();
    postAfter(delay, [this, timer] { fireTimer(timer); });
    return timer;
  }
  wake_.notify_all();
  return timer;
}

void QVMainQueue::fireTimer(TimerID timer) {
  std::unique_lock lock(mutex_);
  for (auto it = timers_.begin(); it != timers_.end(); ++it) {
    if (it->second.first != timer) continue;
    Task task = std::move(it->second.second);
    timers_.erase(it);
    lock.unlock();
    task();
    return;
  }
}

void QVMainQueue::cancelTimer(TimerID timer) {
  std::lock_guard lock(mutex_);
  for (auto it = timers_.begin(); it != timers_.end(); ++it) {
    if (it->second.first == timer) {
      timers_.erase(it);
      return;
    }
  }
}

// Runs one due task (unlocking around it) or waits until something is due or the deadline passes.
// Returns false when nothing ran.
bool QVMainQueue::runOnce(std::unique_lock<std::mutex>& lock, Clock::time_point deadline) {
  Task task;
  if (!tasks_.empty()) {
    task = std::move(tasks_.front());
    tasks_.pop_front();
  } else if (!timers_.empty() && timers_.begin()->first <= Clock::now()) {
    task = std::move(timers_.begin()->second.second);
    timers_.erase(timers_.begin());
  } else {
    auto until = deadline;
    if (!timers_.empty() && timers_.begin()->first < until) until = timers_.begin()->first;
    wake_.wait_until(lock, until);
    return false;
  }
  lock.unlock();
  task();
  lock.lock();
  return true;
}

void QVMainQueue::run() {
  std::unique_lock lock(mutex_);
  mainThread_ = std::this_thread::get_id();
  stopped_ = false;
  while (!stopped_) {
    runOnce(lock, Clock::now() + std::chrono::hours(1));
  }
}

bool QVMainQueue::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
  const auto deadline = Clock::now() + timeout;
  std::unique_lock lock(mutex_);
  mainThread_ = std::this_thread::get_id();
  while (true) {
    lock.unlock();
    const bool finished = done();
    lock.lock();
    if (finished) return true;
    if (Clock::now() >= deadline || stopped_) return false;
    // Short waits so that a condition changed by another thread without a post is seen soon.
    runOnce(lock, std::min(deadline, Clock::now() + std::chrono::milliseconds(10)));
  }
}

void QVMainQueue::drain() {
  std::unique_lock lock(mutex_);
  mainThread_ = std::this_thread::get_id();
  while (runOnce(lock, Clock::now())) {
  }
}

void QVMainQueue::stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
  ++generation_;
  wake_.notify_all();
}

void QVMainQueue::reset() {
  std::lock_guard lock(mutex_);
  stopped_ = false;
}

bool QVMainQueue::stopped() const {
  std::lock_guard lock(mutex_);
  return stopped_;
}

void QVMainQueue::setDispatcher(Dispatcher dispatcher) {
  std::lock_guard lock(mutex_);
  dispatcher_ = std::move(dispatcher);
  mainThread_ = std::this_thread::get_id();
}

bool QVMainQueue::hasDispatcher() const {
  std::lock_guard lock(mutex_);
  return static_cast<bool>(dispatcher_.post);
}

// The one wait behind both forms. `runsAfterRelease`: `fn` owns what it captures and may run after the
// caller went on; otherwise it may point into the caller's stack and never runs once the caller gave up.
bool QVWaitForMainThread(QVMainQueue::Task fn, bool runsAfterRelease, const std::atomic<bool>* released) {
  QVMainQueue& queue = QVMainQueue::main();
  if (queue.isMainThread()) {
    fn();
    return true;
  }
  struct Waiter {
    std::mutex mutex;
    std::condition_variable done;
    bool ran = false;
    bool abandoned = false;
  };
  auto waiter = std::make_shared<Waiter>();
  uint64_t generation = 0;
  {
    std::lock_guard lock(queue.mutex_);
    if (queue.stopped_) {
      QV_LOG_WARN("Main queue stopped, dropping a task");
      return false;
    }
    generation = queue.generation_;
  }
  // Under the waiter's lock, so that a caller that gave up is never raced by a task of its stack.
  queue.post([waiter, fn = std::move(fn), runsAfterRelease] {
    std::lock_guard lock(waiter->mutex);
    if (waiter->abandoned && !runsAfterRelease) return;
    fn();
    waiter->ran = true;
    waiter->done.notify_all();
  });
  std::unique_lock lock(waiter->mutex);
  // The queue's stop and the release are noticed by polling: neither is ours to wait on.
  while (!waiter->done.wait_for(lock, std::chrono::milliseconds(10), [&] { return waiter->ran; })) {
    if (released && released->load()) {
      waiter->abandoned = true;
      return false;
    }
    std::lock_guard queueLock(queue.mutex_);
    if (queue.generation_ != generation) {
      waiter->abandoned = true;
      QV_LOG_WARN("Main queue stopped, dropping a task");
      return false;
    }
  }
  return true;
}

void performOnMainThreadSynchronouslyIfPossible(const std::function<void()>& fn) {
  QVWaitForMainThread([&fn] { fn(); }, false, nullptr);
}

bool performOnMainThreadSynchronouslyUnlessReleased(QVMainQueue::Task fn, const std::atomic<bool>& released) {
  if (released) {
    // Nobody waits any more: the task goes out as a plain post, in order with the others.
    if (QVMainQueue::main().isMainThread()) {
      fn();
      return true;
    }
    QVMainQueue::main().post(std::move(fn));
    return false;
  }
  return QVWaitForMainThread(std::move(fn), true, &released);
}
