// SPDX-License-Identifier: MIT
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "support/QVHostLoop.h"
#include "support/QVTestSupport.h"

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

TEST(QVMainQueueTest, PerformFromAnotherThreadWaitsForTheMainThread) {
  std::atomic<bool> ranOnMain = false;
  std::atomic<bool> returned = false;
  std::thread worker([&] {
    performOnMainThreadSynchronouslyIfPossible([&] { ranOnMain = QVMainQueue::main().isMainThread(); });
    // Only after the function has run does the caller go on.
    EXPECT_TRUE(ranOnMain.load());
    returned = true;
  });
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return returned.load(); }));
  worker.join();
  EXPECT_TRUE(ranOnMain);

  // On the main thread it runs at once, on the caller's stack.
  bool inline_ = false;
  performOnMainThreadSynchronouslyIfPossible([&] { inline_ = true; });
  EXPECT_TRUE(inline_);
}

TEST(QVMainQueueTest, StoppedQueueReleasesWaitersWithoutRunningTheirTask) {
  QVLogCapture log;
  std::atomic<bool> ran = false;
  std::thread worker([&] { performOnMainThreadSynchronouslyIfPossible([&] { ran = true; }); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  QVMainQueue::main().stop();
  worker.join(); // would hang forever if the waiter were not released
  QVMainQueue::main().reset();
  QVMainQueue::main().drain(); // the abandoned task must not run now either
  EXPECT_FALSE(ran);
  EXPECT_TRUE(log.contains("Main queue stopped, dropping a task", "warning"));
}

TEST(QVMainQueueTest, ReleasedWaiterGoesOnAndItsTaskStillRunsOnTheMainThreadInOrder) {
  std::atomic<bool> released = false;
  std::mutex mutex;
  std::vector<std::string> ran;
  const auto task = [&](std::string name) {
    return [&, name] {
      std::lock_guard lock(mutex);
      ran.push_back(QVMainQueue::main().isMainThread() ? name : "off main");
    };
  };
  std::atomic<int> results = 0;
  std::atomic<bool> done = false;
  std::thread worker([&] {
    // The main queue is not run meanwhile: only the release lets these calls return.
    if (!performOnMainThreadSynchronouslyUnlessReleased(task("waited"), released)) ++results;
    if (!performOnMainThreadSynchronouslyUnlessReleased(task("after"), released)) ++results;
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  released = true;
  for (int i = 0; i < 500 && !done; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(done.load()) << "a released waiter still waits";
  worker.join();
  EXPECT_EQ(results, 2);
  EXPECT_TRUE(QVRunMainQueueUntil([&] {
    std::lock_guard lock(mutex);
    return ran.size() == 2;
  }));
  EXPECT_EQ(ran, (std::vector<std::string>{"waited", "after"}));

  // On the main thread it runs at once, released or not.
  EXPECT_TRUE(performOnMainThreadSynchronouslyUnlessReleased(task("inline"), released));
  EXPECT_EQ(ran.back(), "inline");
}

TEST(QVMainQueueTest, TasksAndTimersRunInOrderAndCancelledTimersNever) {
  std::vector<int> order;
  auto& queue = QVMainQueue::main();
  queue.postAfter(std::chrono::milliseconds(30), [&] { order.push_back(3); });
  const auto cancelled = queue.postAfter(std::chrono::milliseconds(10), [&] { order.push_back(99); });
  queue.post([&] { order.push_back(1); });
  queue.post([&] { order.push_back(2); });
  queue.cancelTimer(cancelled);
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(QVMainQueueTest, NotificationsFilterBySenderAndStopWithTheObservation) {
  auto& center = QVNotificationCenter::defaultCenter();
  int sender = 0, other = 0;
  int seenAny = 0, seenSender = 0;
  QVUserInfo received;
  {
    QVNotificationObservation any(center, "QVTestNotification", nullptr,
                                  [&](const QVNotification&) { ++seenAny; });
    QVNotificationObservation fromSender(center, "QVTestNotification", &sender, [&](const QVNotification& n) {
      ++seenSender;
      received = n.userInfo;
    });
    center.post("QVTestNotification", &sender, {{"key", std::string("value")}});
    center.post("QVTestNotification", &other);
    center.post("QVOtherNotification", &sender);
    EXPECT_EQ(seenAny, 2);
    EXPECT_EQ(seenSender, 1);
    EXPECT_EQ(std::get<std::string>(received.at("key")), "value");
  }
  center.post("QVTestNotification", &sender);
  EXPECT_EQ(seenAny, 2);
}

// A host loop of the test's own: tasks and timers both go through it, and a cancelled timer never runs.
TEST(QVMainQueueTest, DispatcherCarriesTasksAndTimers) {
  const auto loop = QVHostLoop::install();
  auto& queue = QVMainQueue::main();
  std::vector<int> order;
  queue.postAfter(std::chrono::milliseconds(20), [&] { order.push_back(2); });
  queue.cancelTimer(queue.postAfter(std::chrono::milliseconds(5), [&] { order.push_back(99); }));
  queue.post([&] { order.push_back(1); });
  queue.drain(); // the queue's own loop has nothing: everything waits in the host's
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(loop->runUntil([&] { return order.size() >= 2; }, std::chrono::seconds(5)));
  queue.setDispatcher({});
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}
