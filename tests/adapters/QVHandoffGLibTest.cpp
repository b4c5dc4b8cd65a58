// SPDX-License-Identifier: MIT
#include "QVHandoffGLib.h"

#include "Foundation/QVMainQueue.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Each test runs a real GMainLoop on its own context, bounded by a watchdog that quits it and fails.
class QVHandoffGLibTest : public ::testing::Test {
protected:
  void SetUp() override {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    QVHandoffUseGLibMainContext(context_);
  }
  void TearDown() override {
    QVMainQueue::main().setDispatcher({});
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  // Runs the loop until quit() or 5 s; returns whether quit() ended it.
  bool run() {
    bool timedOut = false;
    struct Watchdog {
      GMainLoop* loop;
      bool* timedOut;
    } watchdog{loop_, &timedOut};
    GSource* timeout = g_timeout_source_new(5000);
    g_source_set_callback(
        timeout,
        [](gpointer data) -> gboolean {
          auto* w = static_cast<Watchdog*>(data);
          *w->timedOut = true;
          g_main_loop_quit(w->loop);
          return G_SOURCE_REMOVE;
        },
        &watchdog, nullptr);
    g_source_attach(timeout, context_);
    g_main_loop_run(loop_);
    g_source_destroy(timeout);
    g_source_unref(timeout);
    return !timedOut;
  }
  void quit() { g_main_loop_quit(loop_); }
  // True inside a source dispatched by GLib on this thread.
  bool onLoop() const {
    return g_main_depth() > 0 && g_main_context_is_owner(context_) &&
           std::this_thread::get_id() == loopThread_;
  }

  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  const std::thread::id loopThread_ = std::this_thread::get_id();
};

TEST_F(QVHandoffGLibTest, TasksAndTimersFromAnyThreadRunInOrderOnTheContextAndCancelledTimersNever) {
  QVMainQueue& queue = QVMainQueue::main();
  EXPECT_TRUE(queue.hasDispatcher());
  EXPECT_TRUE(queue.isMainThread());
  const auto start = QVMainQueue::Clock::now();
  std::vector<int> order, fired;
  bool allOnLoop = true, cancelledFired = false;
  const auto note = [&](std::vector<int>& into, int value) {
    allOnLoop = allOnLoop && onLoop();
    into.push_back(value);
    if (order.size() == 4 && fired.size() == 2) quit();
  };
  for (int i = 0; i < 3; ++i)
    queue.post([&, i] { note(order, i); });
  std::thread worker([&] {
    EXPECT_FALSE(queue.isMainThread());
    queue.post([&] { note(order, 3); });
  });
  const auto cancelled = queue.postAfter(20ms, [&] { cancelledFired = true; });
  queue.postAfter(60ms, [&] {
    EXPECT_GE(QVMainQueue::Clock::now() - start, 60ms);
    note(fired, 2);
  });
  queue.postAfter(10ms, [&] { note(fired, 1); });
  queue.cancelTimer(cancelled);
  // Posting never runs a task inside the caller, even on the thread that owns the context.
  EXPECT_TRUE(order.empty());
  ASSERT_TRUE(run()) << "the posted tasks or timers never ran on the GLib loop";
  worker.join();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_TRUE(allOnLoop);
  EXPECT_FALSE(cancelledFired);
  // Everything ran through the context: the queue's own loop has nothing left to do.
  bool leftOver = false;
  queue.post([&] { leftOver = true; });
  queue.setDispatcher({});
  queue.drain();
  EXPECT_FALSE(leftOver) << "a task posted through the adapter reached the library's own loop";
}

TEST_F(QVHandoffGLibTest, SynchronousWorkFromAThreadIsCarriedByTheContext) {
  bool ranOnLoop = false;
  bool returned = false;
  std::thread worker([&] {
    performOnMainThreadSynchronouslyIfPossible([&] { ranOnLoop = onLoop(); });
    returned = true;
    QVMainQueue::main().post([&] { quit(); });
  });
  ASSERT_TRUE(run()) << "the worker's synchronous call never completed";
  worker.join();
  EXPECT_TRUE(ranOnLoop);
  EXPECT_TRUE(returned);
}

} // namespace
