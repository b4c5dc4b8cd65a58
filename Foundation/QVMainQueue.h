// SPDX-License-Identifier: MIT
#pragma once
// The main queue: a run loop owned by the host's main thread. Everything the framework confines to the
// main thread (host calls, DNS-SD events, HTTP client completions, callbacks to the host) runs here.

#include "QVHandoff/QVHandoffExport.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

class QVHANDOFF_EXPORT QVMainQueue {
public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;
  using TimerID = uint64_t;
  /// A host with a loop of its own (Qt, GLib) installs one: both members run their task on the host's main
  /// thread, `post` soon, `postAfter` once the delay has passed. Then the library never runs a loop itself.
  struct Dispatcher {
    std::function<void(Task)> post;
    std::function<void(Clock::duration, Task)> postAfter;
  };

  /// The one main queue of the process.
  static QVMainQueue& main();

  /// The thread that runs the queue; until run(), runUntil() or drain() is first called, the process's
  /// initial thread.
  bool isMainThread() const;

  /// Runs `task` on the main thread after those posted before it, through the dispatcher when one is
  /// installed. Any thread.
  void post(Task task);
  /// Runs `task` on the main thread once `delay` has passed; the ID cancels it. Any thread.
  TimerID postAfter(Clock::duration delay, Task task);
  /// The timer's task will not run; an ID that has fired already or is unknown is ignored.
  void cancelTimer(TimerID timer);

  /// Runs tasks on the calling thread, which becomes the main thread, until stop() is called.
  void run();
  /// Runs until `done` holds or `timeout` passes; returns `done()`. For tests and one-shot commands.
  bool runUntil(const std::function<bool()>& done, Clock::duration timeout);
  /// Runs whatever is due now, without waiting.
  void drain();
  /// Ends run(); tasks that wait in performOnMainThreadSynchronouslyIfPossible are released unrun.
  void stop();
  /// Accepts tasks again after stop().
  void reset();
  /// stop() was called and reset() has not been since.
  bool stopped() const;

  /// The calling thread becomes the main thread. An empty dispatcher goes back to the queue's own loop.
  void setDispatcher(Dispatcher dispatcher);
  /// A host's dispatcher is installed, so the library runs no loop of its own.
  bool hasDispatcher() const;

private:
  QVMainQueue();
  bool runOnce(std::unique_lock<std::mutex>& lock, Clock::time_point deadline);

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;
  std::multimap<Clock::time_point, std::pair<TimerID, Task>> timers_;
  TimerID nextTimer_ = 1;
  uint64_t generation_ = 0; // bumped by stop(): waiters of an older generation give up
  bool stopped_ = false;
  std::optional<std::thread::id> mainThread_;
  Dispatcher dispatcher_;
  void fireTimer(TimerID timer);
  friend bool QVWaitForMainThread(Task fn, bool runsAfterRelease, const std::atomic<bool>* released);
};

/// Runs `fn` at once on the main thread, else hands it to the main queue and waits until it has run.
/// When the main queue stops meanwhile, `fn` is dropped with a warning rather than waited for forever.
QVHANDOFF_EXPORT void performOnMainThreadSynchronouslyIfPossible(const std::function<void()>& fn);
/// The same for a caller that may be let go (a connection whose server stops): once `released` holds it
/// stops waiting, and `fn`, which owns what it uses, still runs on the main thread later. True when `fn`
/// ran before this returned.
bool performOnMainThreadSynchronouslyUnlessReleased(QVMainQueue::Task fn, const std::atomic<bool>& released);

#ifdef NDEBUG
#define QV_ASSERT_MAIN_THREAD() ((void)0)
#else
#include <cassert>
#define QV_ASSERT_MAIN_THREAD() assert(QVMainQueue::main().isMainThread() && "must run on the main thread")
#endif
