// SPDX-License-Identifier: MIT
#pragma once
// A host with a loop of its own, as a Qt or GLib host has: once installed as the main queue's dispatcher,
// tasks and timers posted from any thread run on the test's thread, and only while the test turns this loop.

#include "Foundation/QVMainQueue.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

class QVHostLoop {
public:
  // Makes a loop and hands the main queue to it; the test removes it with setDispatcher({}).
  static std::shared_ptr<QVHostLoop> install() {
    auto loop = std::make_shared<QVHostLoop>();
    QVMainQueue::main().setDispatcher({[loop](QVMainQueue::Task task) { loop->post(std::move(task)); },
                                       [loop](QVMainQueue::Clock::duration delay, QVMainQueue::Task task) {
                                         loop->postAfter(delay, std::move(task));
                                       }});
    return loop;
  }
  void post(QVMainQueue::Task task) { postAfter({}, std::move(task)); }
  void postAfter(QVMainQueue::Clock::duration delay, QVMainQueue::Task task) {
    std::lock_guard lock(mutex_);
    tasks_.emplace(QVMainQueue::Clock::now() + delay, std::move(task));
    wake_.notify_all();
  }
  // Runs due tasks until `done` holds; false after `timeout`.
  bool runUntil(const std::function<bool()>& done,
                QVMainQueue::Clock::duration timeout = std::chrono::seconds(20)) {
    const auto deadline = QVMainQueue::Clock::now() + timeout;
    while (!done()) {
      if (QVMainQueue::Clock::now() >= deadline) return false;
      std::unique_lock lock(mutex_);
      const auto due = tasks_.empty() ? deadline : tasks_.begin()->first;
      if (due > QVMainQueue::Clock::now()) {
        wake_.wait_until(
            lock, std::min({due, deadline, QVMainQueue::Clock::now() + std::chrono::milliseconds(10)}));
        continue;
      }
      auto task = std::move(tasks_.begin()->second);
      tasks_.erase(tasks_.begin());
      lock.unlock();
      task();
    }
    return true;
  }

private:
  std::mutex mutex_;
  std::condition_variable wake_;
  std::multimap<QVMainQueue::Clock::time_point, QVMainQueue::Task> tasks_;
};
