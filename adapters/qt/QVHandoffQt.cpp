// SPDX-License-Identifier: MIT
#include "QVHandoffQt.h"

#include "Foundation/QVMainQueue.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <chrono>

void QVHandoffUseQtEventLoop() {
  QCoreApplication* application = QCoreApplication::instance();
  if (!application || QThread::currentThread() != application->thread()) return;
  // Tasks posted after the application object is gone are dropped, as Qt drops its own.
  QPointer<QCoreApplication> receiver(application);
  QVMainQueue::Dispatcher dispatcher;
  dispatcher.post = [receiver](QVMainQueue::Task task) {
    if (receiver) QMetaObject::invokeMethod(receiver.data(), std::move(task), Qt::QueuedConnection);
  };
  dispatcher.postAfter = [receiver](QVMainQueue::Clock::duration delay, QVMainQueue::Task task) {
    // A timer belongs to the thread that starts it, and the caller may be any thread: it is started on the
    // application's thread, for what is left of the delay by then.
    const auto deadline = QVMainQueue::Clock::now() + delay;
    if (!receiver) return;
    QMetaObject::invokeMethod(
        receiver.data(),
        [receiver, deadline, task = std::move(task)]() mutable {
          const auto left =
              std::chrono::ceil<std::chrono::milliseconds>(deadline - QVMainQueue::Clock::now());
          QTimer::singleShot(std::max(left, std::chrono::milliseconds(0)), Qt::PreciseTimer, receiver.data(),
                             std::move(task));
        },
        Qt::QueuedConnection);
  };
  QVMainQueue::main().setDispatcher(std::move(dispatcher));
}
