// SPDX-License-Identifier: MIT
#pragma once
// The shared manager keeps the first handoff folder it computes: including this gives the whole test binary
// a private cache and state folder before anything asks, so no test writes into the user's real caches.

#include "QVHandoff/QVHandoffManager.h"
#include "support/QVTestSupport.h"

#include <cstdlib>
#include <memory>

class QVPrivateCachesEnvironment : public ::testing::Environment {
public:
  void SetUp() override {
    caches_ = std::make_unique<QVTemporaryFolder>();
    setenv("XDG_CACHE_HOME", caches_->path().c_str(), 1);
    setenv("XDG_STATE_HOME", (caches_->path() / "state").c_str(), 1);
    QVHandoffManager::defaultHandoffDirectoryPath();
  }
  void TearDown() override { caches_.reset(); }
  static inline std::unique_ptr<QVTemporaryFolder> caches_;
};

// Inline: one registration per binary, however many of its files include this.
inline auto* const kQVPrivateCachesEnvironment =
    ::testing::AddGlobalTestEnvironment(new QVPrivateCachesEnvironment);
