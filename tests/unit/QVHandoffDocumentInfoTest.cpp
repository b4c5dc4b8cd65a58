// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffDocumentInfo.h"

#include "Foundation/QVFileHandle.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVNetService.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "support/QVTestSupport.h"

#include <atomic>
#include <thread>

namespace {

struct CountingTask : QVURLSessionDataTask {
  std::atomic<int> cancels = 0;
  void cancel() override { ++cancels; }
};

struct NamedService : QVNetService {
  std::string name() const override { return "Studio Mac"; }
  std::string description() const override { return "<NamedService>"; }
};

const QVDate kDate{std::chrono::seconds(1456823107)}; // 2016-03-01 09:05:07 UTC

class QVHandoffDocumentInfoTest : public ::testing::Test {
protected:
  // A described document with a download in flight, counting what the record calls back.
  std::shared_ptr<QVHandoffDocumentInfo> transferring(uint64_t fileSize) {
    auto info = QVHandoffDocumentInfo::make();
    info->setFilePath("/Docs/A.pdf");
    info->setDeviceName("Studio Mac");
    info->setFileModificationDate(kDate);
    info->setFileSize(fileSize);
    QVWriteFile(folder.file("copy.pdf"), {});
    QVWriteFile(folder.file("temp"), {});
    info->setFinalFilePath(folder.file("copy.pdf"));
    info->setTempFilePath(folder.file("temp"));
    info->setFileHandle(QVFileHandle::forWritingAtPath(folder.file("copy.pdf")));
    info->setFileTransferHTTPOperation(task);
    info->setFileTransferCompletionHandler([this](const std::string& path) { completed.push_back(path); });
    info->setFileTransferErrorHandler([this](const QVError& error) { errors.push_back(error); });
    info->setFileTransferProgressHandler([this](float progress) {
      EXPECT_TRUE(QVMainQueue::main().isMainThread());
      progresses.push_back(progress);
    });
    info->setFileTransferInvalidationHandler([this] { ++invalidations; });
    return info;
  }

  // Runs `work` as the network thread would, with the main queue running meanwhile.
  static void onNetworkThread(const std::function<void()>& work) {
    std::atomic<bool> done = false;
    std::thread thread([&] {
      work();
      done = true;
    });
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return done.load(); }));
    thread.join();
  }

  QVTemporaryFolder folder;
  std::shared_ptr<CountingTask> task = std::make_shared<CountingTask>();
  std::vector<std::string> completed;
  std::vector<QVError> errors;
  std::vector<float> progresses;
  int invalidations = 0;
};

} // namespace

TEST_F(QVHandoffDocumentInfoTest, ACopyDescribesTheDocumentWithoutOriginOrTransferAndEqualsIt) {
  const auto info = transferring(10);
  info->setSaveBackFilePath("/cache/A.pdf");
  info->setRemoteFilePath("/peer/A.pdf");
  info->setRemoteDeviceName("Peer");
  info->setParentServerInfo(QVHandoffServerInfo::make());
  auto copy = info->copy();
  EXPECT_EQ(copy->saveBackFilePath() + copy->remoteFilePath() + copy->remoteDeviceName() +
                copy->finalFilePath() + copy->tempFilePath(),
            "");
  EXPECT_FALSE(copy->parentServerInfo() || copy->fileHandle() || copy->fileTransferHTTPOperation());
  EXPECT_FALSE(copy->fileTransferCompletionHandler() || copy->fileTransferProgressHandler() ||
               copy->fileTransferErrorHandler() || copy->fileTransferInvalidationHandler());

  // Equal: the same path, device name, size and date, all present on the receiver.
  copy->setContentType("text/plain");
  EXPECT_TRUE(info->isEqualToDocumentInfo(*copy));
  copy->setFileSize(11);
  EXPECT_FALSE(info->isEqualToDocumentInfo(*copy));
  copy = info->copy();
  copy->setFileModificationDate(kDate + std::chrono::milliseconds(1));
  EXPECT_FALSE(info->isEqualToDocumentInfo(*copy));
  copy->setFileModificationDate(std::nullopt);
  EXPECT_FALSE(copy->isEqualToDocumentInfo(*copy->copy())) << "no date";
  copy = info->copy();
  copy->setFilePath("");
  EXPECT_FALSE(copy->isEqualToDocumentInfo(*copy->copy())) << "no path";
  copy = info->copy();
  copy->setDeviceName("");
  EXPECT_FALSE(copy->isEqualToDocumentInfo(*copy->copy())) << "no device name";
}

TEST_F(QVHandoffDocumentInfoTest, ParentServerGivesItsNamesOnceAndOnlyThoseItHas) {
  auto server = QVHandoffServerInfo::make();
  server->setService(std::make_shared<NamedService>());
  server->setProductName("Reader");
  const auto info = QVHandoffDocumentInfo::make();
  info->setDeviceType(2);
  info->setParentServerInfo(server);
  EXPECT_EQ(info->productName() + "/" + info->deviceName(), "Reader/Studio Mac");
  EXPECT_EQ(info->deviceType(), 2) << "a server without a device type leaves the record's";
  info->setProductName("Mine");
  info->setParentServerInfo(server);
  EXPECT_EQ(info->productName(), "Mine") << "the same server again copies nothing";
  info->setParentServerInfo(QVHandoffServerInfo::make());
  EXPECT_EQ(info->productName() + "/" + info->deviceName(), "Mine/Studio Mac");
}

TEST_F(QVHandoffDocumentInfoTest, ProgressIsThrottledAndNeedsAKnownSize) {
  auto info = transferring(100);
  onNetworkThread([&] {
    for (size_t length : {1, 1, 98})
      info->handleFileTransferData(QVTestBytes(length));
  });
  EXPECT_EQ(progresses, std::vector<float>{0.01f}) << "0.02 and 1.0 come too soon after 0.01";
  EXPECT_TRUE(info->fileTransferred());
  EXPECT_EQ(QVReadFile(folder.file("copy.pdf")).size(), 100u);

  // Once the interval has passed a large enough step goes through; a step back never does.
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  info->handleFileTransferProgress(0.005f);
  info->handleFileTransferProgress(0.5f);
  EXPECT_EQ(progresses, (std::vector<float>{0.01f, 0.5f}));
  // Cancelled from its own progress callback, the record starts its next transfer from zero.
  info->setFileTransferProgressHandler([&](float) { info->invalidateFileTransferRelatedData(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  info->handleFileTransferProgress(0.8f);
  EXPECT_EQ(info->notifiedProgress(), 0.0f);

  // A write that fails (a full disk) is not counted: the transfer cannot end as complete.
  info = transferring(100);
  info->setFileHandle(QVFileHandle::forWritingAtPath("/dev/full"));
  onNetworkThread([&] { info->handleFileTransferData(QVTestBytes(100)); });
  EXPECT_FALSE(info->fileTransferred());

  info = transferring(0);
  progresses.clear();
  onNetworkThread([&] { info->handleFileTransferData(QVTestBytes(50)); });
  EXPECT_TRUE(progresses.empty());
  EXPECT_EQ(QVReadFile(folder.file("copy.pdf")).size(), 50u) << "written though not counted";
  EXPECT_TRUE(info->fileTransferred());
  info->setFileSize(50);
  EXPECT_FALSE(info->fileTransferred());
}

TEST_F(QVHandoffDocumentInfoTest, TheFirstEndRunsOnceAndOnlyAnErrorDeletesThePartialCopy) {
  auto info = transferring(10);
  const auto handle = info->fileHandle();
  onNetworkThread([&] { info->handleFileTransferCompletion(info->finalFilePath()); });
  info->handleFileTransferError(QVError{"com.quorvel.qvhandoff", 0, {}});
  EXPECT_EQ(completed, std::vector<std::string>{folder.file("copy.pdf")});
  EXPECT_TRUE(errors.empty());
  EXPECT_FALSE(handle->isOpen());
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"copy.pdf"}) << "temp file gone, copy kept";

  info = transferring(10);
  // Teardown calling back into the record must not run the invalidation callback twice.
  info->setFileTransferInvalidationHandler([&] {
    ++invalidations;
    info->invalidateFileTransferRelatedData();
  });
  const QVError lost{QVURLErrorDomain, QVURLError::NetworkConnectionLost, {}};
  onNetworkThread([&] { info->handleFileTransferError(lost); });
  info->handleFileTransferCompletion("/elsewhere");
  EXPECT_EQ(errors, std::vector<QVError>{lost});
  EXPECT_EQ(completed.size(), 1u);
  EXPECT_EQ(invalidations, 2);
  EXPECT_EQ(task->cancels, 2);
  EXPECT_TRUE(folder.entries().empty()) << "partial copy and temp file both removed";
}

TEST_F(QVHandoffDocumentInfoTest, TeardownWhileProgressWaitsForTheMainThreadStaysSilent) {
  const auto info = transferring(4);
  onNetworkThread([&] { info->handleFileTransferData(QVTestBytes(2)); });
  ASSERT_EQ(progresses.size(), 1u);
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  // The main thread is busy cancelling while the next chunk asks it to report 1.0: neither may wait for
  // the other, and the cancelled transfer reports nothing more.
  QVMainQueue::main().post([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    info->invalidateFileTransferRelatedData();
  });
  onNetworkThread([&] { info->handleFileTransferData(QVTestBytes(2)); });
  EXPECT_EQ(progresses.size(), 1u);
  EXPECT_EQ(invalidations, 1);
}

TEST_F(QVHandoffDocumentInfoTest, ARestartedTransferTakesNothingOfTheOldOne) {
  const auto info = transferring(100);
  const auto old = info->fileTransfer();
  old->invalidateFileTransferRelatedData();
  EXPECT_EQ(invalidations, 1);
  info->setFileTransfer(std::make_shared<QVHandoffTransfer>());
  QVWriteFile(folder.file("second.pdf"), {});
  info->setFileHandle(QVFileHandle::forWritingAtPath(folder.file("second.pdf")));
  info->setFinalFilePath(folder.file("second.pdf"));

  // A late chunk and a late failure of the old request, on the network thread.
  onNetworkThread([&] {
    old->handleFileTransferData(QVTestBytes(60).data(), 60, info->fileSize());
    old->handleFileTransferError(QVError{"com.quorvel.qvhandoff", 0, {}});
  });
  EXPECT_TRUE(QVReadFile(folder.file("second.pdf")).empty());
  EXPECT_EQ(info->fileDataSizeHandled(), 0u);
  EXPECT_EQ(info->finalFilePath(), folder.file("second.pdf"));
  EXPECT_TRUE(errors.empty()) << "the old transfer's callbacks went with its teardown";

  info->handleFileTransferData(QVTestBytes(100));
  EXPECT_EQ(QVReadFile(folder.file("second.pdf")), QVTestBytes(100));
  EXPECT_TRUE(info->fileTransferred());
}

TEST_F(QVHandoffDocumentInfoTest, AFailureOnTheDataThreadAndACancelOnTheMainThreadEndItOnce) {
  // The data thread's failure has taken the error callback when the main thread cancels: the two
  // teardowns overlap, the partial copy goes once, and the error is reported exactly once.
  for (int round = 0; round < 20; ++round) {
    errors.clear();
    invalidations = 0;
    const auto info = transferring(10);
    std::atomic<bool> failing = false;
    info->setFileTransferInvalidationHandler([&] {
      ++invalidations;
      failing = true;
    });
    std::atomic<bool> done = false;
    std::thread network([&] {
      info->fileTransfer()->handleFileTransferError(QVError{QVURLErrorDomain, -1005, {}});
      done = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!failing && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    ASSERT_TRUE(failing.load()) << round;
    info->invalidateFileTransferRelatedData();
    info->invalidateFile();
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return done.load(); })) << round;
    network.join();
    EXPECT_EQ(errors.size(), 1u) << round;
    EXPECT_EQ(invalidations, 1) << round;
    EXPECT_TRUE(completed.empty());
    EXPECT_TRUE(folder.entries().empty()) << round;
  }
}
