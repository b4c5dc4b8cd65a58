// SPDX-License-Identifier: MIT
#include "QVHostInput.h"

#include "Foundation/QVMainQueue.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <pthread.h>
#include <thread>

namespace {

sigset_t interruptingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  return signals;
}

} // namespace

void QVHostInput::blockSignals() {
  const sigset_t signals = interruptingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

void QVHostInput::readLines(std::function<void(std::string)> line, std::function<void()> end) {
  // Detached: a read blocked on a terminal cannot be interrupted, and the process may end while it waits.
  std::thread([line = std::move(line), end = std::move(end)] {
    std::string text;
    while (std::getline(std::cin, text))
      QVMainQueue::main().post([line, text] { line(text); });
    QVMainQueue::main().post(end);
  }).detach();
}

void QVHostInput::watchSignals(std::function<void()> interrupted) {
  std::thread([interrupted = std::move(interrupted)] {
    const sigset_t signals = interruptingSignals();
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) return;
    QVMainQueue::main().post(interrupted);
    // The orderly end takes well under a second; a second interrupt means the user will not wait for it.
    if (sigwait(&signals, &signal) == 0) std::_Exit(128 + signal);
  }).detach();
}
