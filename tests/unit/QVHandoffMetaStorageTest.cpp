// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffMetaStorage.h"
#include "Foundation/QVMainQueue.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

namespace {

struct CountingDelegate : QVHandoffMetaStorageDelegate {
  void metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>& storage) override {
    senders.push_back(storage.get());
    serviceTypes.push_back(storage->serviceType());
  }
  std::vector<const QVHandoffMetaStorage*> senders;
  std::vector<std::string> serviceTypes;
};

} // namespace

TEST(QVHandoffMetaStorageTest, GeneratedMetaIsFreshEveryTimeAndAnnouncesNothing) {
  QVLogCapture log;
  auto storage = std::make_shared<QVHandoffMetaStorage>();
  auto delegate = std::make_shared<CountingDelegate>();
  storage->setDelegate(delegate);

  storage->generateMeta();
  const std::string firstType = storage->serviceType();
  const QVData firstKey = storage->AES256Key();
  storage->generateMeta();
  EXPECT_NE(firstType, storage->serviceType());
  ASSERT_EQ(firstKey.size(), 32u);
  EXPECT_NE(firstKey, storage->AES256Key());
  EXPECT_NE(firstKey, QVData(32, 0)) << "the key must come from a random source, not a zeroed buffer";
  EXPECT_TRUE(log.contains("Meta data generated, serviceType(" + storage->serviceType() + ")", "info"));

  QVMainQueue::main().drain();
  EXPECT_TRUE(delegate->senders.empty()) << "generating alone must not notify";
  EXPECT_EQ(log.count("Meta data did change"), 0u);
}

TEST(QVHandoffMetaStorageTest, NotificationArrivesOnceFromTheMainLoopAndOnlyToALiveDelegate) {
  QVLogCapture log;
  auto storage = std::make_shared<QVHandoffMetaStorage>();
  auto delegate = std::make_shared<CountingDelegate>();
  storage->setDelegate(delegate);
  storage->setServiceType("first");

  storage->notifyDelegateAboutMetaChange();
  EXPECT_TRUE(delegate->senders.empty()) << "never called on the caller's stack";
  EXPECT_TRUE(log.contains("Meta data did change", "info"));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return !delegate->senders.empty(); }));
  QVMainQueue::main().drain();
  ASSERT_EQ(delegate->senders.size(), 1u);
  EXPECT_EQ(delegate->senders[0], storage.get());

  // The queued call keeps the storage alive: the host may drop it meanwhile.
  const QVHandoffMetaStorage* const address = storage.get();
  storage->setServiceType("second");
  storage->notifyDelegateAboutMetaChange();
  storage.reset();
  QVMainQueue::main().drain();
  ASSERT_EQ(delegate->senders.size(), 2u);
  EXPECT_EQ(delegate->senders[1], address);
  EXPECT_EQ(delegate->serviceTypes[1], "second");

  // A delegate gone before the call runs is simply not called.
  auto other = std::make_shared<QVHandoffMetaStorage>();
  other->setDelegate(delegate);
  other->notifyDelegateAboutMetaChange();
  std::weak_ptr<CountingDelegate> weakDelegate = delegate;
  delegate.reset();
  EXPECT_TRUE(weakDelegate.expired()) << "the queued call must fetch the delegate when it runs, not hold it";
  QVMainQueue::main().drain();
}
