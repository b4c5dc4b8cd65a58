// SPDX-License-Identifier: MIT
#include "QVHandoffQt.h"

#include "Foundation/QVMainQueue.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Each test runs the real QCoreApplication event loop, bounded by a watchdog that exits it with 1.
class QVHandoffQtTest : public ::testing::Test {
protected:
  void SetUp() override { QVHandoffUseQtEventLoop(); }
  void TearDown() override { QVMainQueue::main().setDispatcher({}); }
  // Returns whether quit() ended the loop before the watchdog did.
  static bool run() {
    QTimer watchdog;
    watchdog.setSingleShot(true);
    QObject::connect(&watchdog, &QTimer::timeout, [] { QCoreApplication::exit(1); });
    watchdog.start(5000);
    return QCoreApplication::exec() == 0;
  }
  static void quit() { QCoreApplication::exit(0); }
  static bool onLoop() {
    return QThread::currentThread() == QCoreApplication::instance()->thread() &&
           QThread::currentThread()->loopLevel() > 0;
  }
};

TEST_F(QVHandoffQtTest, TasksAndTimersRunOnTheApplicationLoop) {
  QVMainQueue& queue = QVMainQueue::main();
  ASSERT_TRUE(queue.hasDispatcher());
  std::vector<int> order;
  bool allOnLoop = true;
  bool cancelledFired = false;
  const auto start = QVMainQueue::Clock::now();
  queue.post([&] {
    allOnLoop = allOnLoop && onLoop();
    order.push_back(0);
  });
  const auto cancelled = queue.postAfter(10ms, [&] { cancelledFired = true; });
  queue.cancelTimer(cancelled);
  std::thread worker([&] {
    // A timer asked for by another thread still fires on the application's thread, after its delay.
    queue.postAfter(50ms, [&] {
      allOnLoop = allOnLoop && onLoop();
      EXPECT_GE(QVMainQueue::Clock::now() - start, 50ms);
      order.push_back(2);
      quit();
    });
    performOnMainThreadSynchronouslyIfPossible([&] {
      allOnLoop = allOnLoop && onLoop();
      order.push_back(1);
    });
  });
  EXPECT_TRUE(order.empty()) << "a task ran inside the code that posted it";
  ASSERT_TRUE(run()) << "the library's tasks never ran on the Qt loop";
  worker.join();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_TRUE(allOnLoop);
  EXPECT_FALSE(cancelledFired);
}

TEST_F(QVHandoffQtTest, NothingIsInstalledOffTheApplicationThread) {
  QVMainQueue::main().setDispatcher({});
  std::thread other([] { QVHandoffUseQtEventLoop(); });
  other.join();
  EXPECT_FALSE(QVMainQueue::main().hasDispatcher());
}

} // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
