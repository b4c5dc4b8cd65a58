// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffDocumentMetaStorage.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const QVData kForeignKey = QVTestBytes(32, 7);

struct RecordingDelegate : QVHandoffMetaStorageDelegate {
  explicit RecordingDelegate(std::string metaFile) : metaFile(std::move(metaFile)) {}
  void metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>& storage) override {
    serviceTypes.push_back(storage->serviceType());
    fileAtCall.push_back(QVReadFile(metaFile));
  }
  std::string metaFile;
  std::vector<std::string> serviceTypes;
  std::vector<QVData> fileAtCall;
};

std::string base64(const QVData& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  text.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                                  static_cast<int>(bytes.size()))));
  return text;
}

// What another device's program would write.
std::string metaXML(const std::string& serviceType, const QVData& key) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<plist version=\"1.0\">\n<dict>\n\t<key>serviceType</key>\n\t<string>" +
         serviceType + "</string>\n\t<key>aes256Key</key>\n\t<data>" + base64(key) +
         "</data>\n</dict>\n</plist>\n";
}

QVData bytesOf(const std::string& text) {
  return QVData(text.begin(), text.end());
}

timespec timespecOf(QVDate date) {
  const auto nanoseconds =
      std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
  return timespec{static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
}

void setModificationDate(const std::string& path, QVDate date) {
  const timespec times[2] = {{0, UTIME_OMIT}, timespecOf(date)};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

} // namespace

class QVHandoffDocumentMetaStorageTest : public ::testing::Test {
protected:
  void SetUp() override {
    QVHandoffiCloudDocumentsPresenter::resetForTesting();
    QVHandoffiCloudDocumentsPresenter::setContainerPath(container());
  }
  void TearDown() override {
    QVHandoffiCloudDocumentsPresenter::resetForTesting();
    QVMainQueue::main().drain();
  }

  std::string container() const { return folder_.path().string(); }
  std::string metaFile() const { return folder_.file(QVHandoffMetaFileName); }

  // Created as the host does (then made master), run until the container has been tested and the
  // start-up has happened.
  std::shared_ptr<QVHandoffDocumentMetaStorage>
  startStorage(bool master, const std::shared_ptr<RecordingDelegate>& delegate) {
    auto storage = QVHandoffDocumentMetaStorage::storageWithContainerURL(container());
    storage->setDelegate(delegate);
    if (master) storage->setMaster(true);
    EXPECT_TRUE(QVRunMainQueueUntil([] { return QVHandoffiCloudDocumentsPresenter::isiCloudTested(); }));
    QVMainQueue::main().drain();
    return storage;
  }

  // Replaces the meta file the way a sync client does: a finished file renamed over it.
  void replaceMetaFile(const QVData& contents, std::optional<QVDate> date = std::nullopt) {
    const std::string incoming = folder_.file("incoming.part");
    QVWriteFile(incoming, contents);
    if (date) setModificationDate(incoming, *date);
    ASSERT_EQ(std::rename(incoming.c_str(), metaFile().c_str()), 0);
  }

  std::shared_ptr<RecordingDelegate> makeDelegate() const {
    return std::make_shared<RecordingDelegate>(metaFile());
  }

  QVTemporaryFolder folder_;
  QVLogCapture log_;
};

TEST_F(QVHandoffDocumentMetaStorageTest, MasterCreatesTheFileAndAnotherDeviceFollowsIt) {
  auto masterDelegate = makeDelegate();
  auto master = startStorage(true, masterDelegate);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return !masterDelegate->serviceTypes.empty(); }));
  QVMainQueue::main().drain();
  EXPECT_EQ(masterDelegate->serviceTypes.size(), 1u);
  const QVData file = QVReadFile(metaFile());
  std::string written(file.begin(), file.end());
  std::erase_if(written, [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
  EXPECT_NE(written.find("<string>" + master->serviceType() + "</string>"), std::string::npos) << written;
  EXPECT_NE(written.find("<data>" + base64(master->AES256Key()) + "</data>"), std::string::npos) << written;
  EXPECT_EQ(masterDelegate->fileAtCall[0], file) << "notified only after the write";

  auto otherDelegate = makeDelegate();
  auto other = startStorage(false, otherDelegate);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return otherDelegate->serviceTypes.size() == 1; }));
  EXPECT_EQ(other->serviceType(), master->serviceType());
  EXPECT_EQ(other->AES256Key(), master->AES256Key());

  // A new key on the master reaches the other storage through the file alone.
  master->generateMeta();
  ASSERT_TRUE(master->writeMetaData());
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return otherDelegate->serviceTypes.size() == 2; }));
  EXPECT_EQ(otherDelegate->serviceTypes[1], master->serviceType());
  EXPECT_EQ(other->AES256Key(), master->AES256Key());
  QVMainQueue::main().drain();
  EXPECT_EQ(masterDelegate->serviceTypes.size(), 2u);
  EXPECT_EQ(folder_.entries(), std::vector<std::string>{QVHandoffMetaFileName}) << "no temporary file left";
}

TEST_F(QVHandoffDocumentMetaStorageTest, ForeignFilesAreReadAndAnInvalidOneIsReplacedOnlyByTheMaster) {
  auto readerDelegate = makeDelegate();
  auto reader = startStorage(false, readerDelegate);
  EXPECT_TRUE(log_.contains("Meta data file not found", "info"));
  EXPECT_FALSE(fs::exists(metaFile())) << "only a master creates the file";

  // The sync client delivers, after start-up, a binary property list made by another program from
  // hand-written XML.
  const std::string source = folder_.file("source.xml"), binary = folder_.file("binary");
  QVWriteFile(source, bytesOf(metaXML("FOREIGN-TYPE", kForeignKey)));
  ASSERT_EQ(std::system(("plistutil -i " + source + " -o " + binary).c_str()), 0);
  fs::remove(source);
  replaceMetaFile(QVReadFile(binary));
  fs::remove(binary);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return readerDelegate->serviceTypes.size() == 1; }));
  EXPECT_EQ(reader->serviceType(), "FOREIGN-TYPE");
  EXPECT_EQ(reader->AES256Key(), kForeignKey);
  EXPECT_TRUE(log_.contains("Meta data read serviceType(FOREIGN-TYPE)", "info"));

  // A truncated file, garbage, or an empty key: the non-master keeps what it had.
  const std::string valid = metaXML("GOOD-TYPE", kForeignKey);
  QVWriteFile(metaFile(), bytesOf(valid.substr(0, valid.size() / 2)));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return log_.count("Couldn't read meta data dictionary") == 1; }));
  QVWriteFile(metaFile(), QVTestBytes(300, 3));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return log_.count("Couldn't read meta data dictionary") == 2; }));
  replaceMetaFile(bytesOf(metaXML("EMPTY-KEY-TYPE", {})));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return log_.contains("Meta data dictionary is invalid", "error"); }));
  EXPECT_EQ(reader->serviceType(), "FOREIGN-TYPE");
  EXPECT_EQ(reader->AES256Key(), kForeignKey);
  EXPECT_EQ(readerDelegate->serviceTypes.size(), 1u);

  // The master replaces it with new values and says so once, after the write.
  auto masterDelegate = makeDelegate();
  auto master = startStorage(true, masterDelegate);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return readerDelegate->serviceTypes.size() == 2; }));
  QVMainQueue::main().drain();
  ASSERT_EQ(masterDelegate->serviceTypes.size(), 1u);
  EXPECT_NE(master->serviceType(), "EMPTY-KEY-TYPE");
  EXPECT_EQ(master->AES256Key().size(), 32u);
  EXPECT_EQ(masterDelegate->fileAtCall[0], QVReadFile(metaFile()));
  EXPECT_EQ(reader->AES256Key(), master->AES256Key());
}

TEST_F(QVHandoffDocumentMetaStorageTest, TheNewestConflictCopyWinsAndUnrelatedFilesStay) {
  const QVDate now = std::chrono::system_clock::now();
  QVWriteFile(metaFile(), bytesOf(metaXML("CURRENT", kForeignKey)));
  setModificationDate(metaFile(), now);
  const std::string older =
      folder_.file(".com.quorvel.paperloom (Laptop's conflicted copy 2020-01-01).handoff");
  QVWriteFile(older, bytesOf(metaXML("OLDER", kForeignKey)));
  setModificationDate(older, now - std::chrono::hours(1));
  const std::vector<std::string> unrelated = {"notes.txt", "Report.sync-conflict-20240101-120000-ABCDEFG.pdf",
                                              "Report (conflicted copy 2024-01-01).pdf"};
  for (const auto& name : unrelated)
    QVWriteFile(folder_.file(name), QVTestBytes(10));

  // At start-up the older copy goes and the meta file stays as it is.
  auto delegate = makeDelegate();
  auto storage = startStorage(false, delegate);
  EXPECT_TRUE(log_.contains("Did resolve conflicts for file at url " + metaFile(), "info"));
  EXPECT_FALSE(fs::exists(older));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return delegate->serviceTypes.size() == 1; }));
  EXPECT_EQ(storage->serviceType(), "CURRENT");

  // A newer copy synced in while running replaces it.
  const QVData newer = bytesOf(metaXML("NEWER", kForeignKey));
  const std::string staged = folder_.file("staged");
  QVWriteFile(staged, newer);
  setModificationDate(staged, now + std::chrono::hours(1));
  const std::string copy =
      folder_.file(".com.quorvel.paperloom.sync-conflict-20240101-120000-ABCDEFG.handoff");
  ASSERT_EQ(std::rename(staged.c_str(), copy.c_str()), 0);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return storage->serviceType() == "NEWER"; }));
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_EQ(QVReadFile(metaFile()), newer);
  std::vector<std::string> expected = unrelated;
  expected.push_back(QVHandoffMetaFileName);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(folder_.entries(), expected);
}

TEST_F(QVHandoffDocumentMetaStorageTest, OwnWritesAndUnchangedDatesAreNotReadBack) {
  auto delegate = makeDelegate();
  auto storage = startStorage(true, delegate);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return delegate->serviceTypes.size() == 1; }));
  const auto saved = storage->savedMetaModificationDate();
  ASSERT_TRUE(saved.has_value());

  // Touching the file without changing its date reports a change twice, and nothing is read.
  setModificationDate(metaFile(), *saved);
  setModificationDate(metaFile(), *saved);
  // A foreign file one nanosecond younger than our own write must be read; the kernel orders its events,
  // so once it is read the earlier ones have been handled too.
  replaceMetaFile(bytesOf(metaXML("EXTERNAL", kForeignKey)), *saved + std::chrono::nanoseconds(1));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return delegate->serviceTypes.size() == 2; }));
  EXPECT_EQ(delegate->serviceTypes[1], "EXTERNAL");
  EXPECT_EQ(log_.count("Meta data read serviceType("), 1u) << "only the foreign file may have been read";
}

TEST_F(QVHandoffDocumentMetaStorageTest, AContainerCreatedLaterStartsTheStorage) {
  const std::string late = (folder_.path() / "Sync" / "Devices").string();
  QVHandoffiCloudDocumentsPresenter::setContainerPath(late);
  QVMainQueue::main().drain(); // the switch away from the existing folder is a change of its own
  int accountChanges = 0;
  QVNotificationObservation observation(QVNotificationCenter::defaultCenter(),
                                        QViCloudAccountStateDidChangeNotification, nullptr,
                                        [&](const QVNotification&) { ++accountChanges; });
  auto delegate = std::make_shared<RecordingDelegate>((fs::path(late) / QVHandoffMetaFileName).string());
  auto storage = QVHandoffDocumentMetaStorage::storageWithContainerURL(late);
  storage->setDelegate(delegate);
  storage->setMaster(true);
  EXPECT_FALSE(QVHandoffiCloudDocumentsPresenter::isiCloudConfigured());
  EXPECT_EQ(QVHandoffiCloudDocumentsPresenter::defaultPresenter()->currentAccountState(), 0);

  // Even the parent comes late, as a sync client creates it.
  fs::create_directories(late);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return delegate->serviceTypes.size() == 1; }));
  EXPECT_EQ(accountChanges, 1);
  EXPECT_TRUE(QVHandoffiCloudDocumentsPresenter::isiCloudConfigured());
  EXPECT_TRUE(fs::exists(fs::path(late) / QVHandoffMetaFileName));

  fs::remove_all(late);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return accountChanges == 2; }));
  EXPECT_EQ(QVHandoffiCloudDocumentsPresenter::defaultPresenter()->currentAccountState(), 0);
}

TEST_F(QVHandoffDocumentMetaStorageTest, DevicesStartingTogetherOnAnEmptyFolderEndWithOneKey) {
  ASSERT_TRUE(QVRunMainQueueUntil([] { return QVHandoffiCloudDocumentsPresenter::isiCloudTested(); }));
  constexpr size_t kDevices = 3;
  for (int round = 0; round < 20; ++round) {
    const std::string folder = folder_.file(std::to_string(round));
    fs::create_directory(folder);
    std::vector<std::shared_ptr<QVHandoffDocumentMetaStorage>> devices;
    for (size_t i = 0; i < kDevices; ++i)
      devices.push_back(QVHandoffDocumentMetaStorage::storageWithContainerURL(folder));
    // Every device's manager makes its storage master at the same moment, before any of them has a file.
    std::latch together(kDevices);
    {
      std::vector<std::jthread> managers;
      for (const auto& device : devices)
        managers.emplace_back([&together, device] {
          together.arrive_and_wait();
          device->setMaster(true);
        });
    }
    const auto agreed = [&] {
      return std::all_of(devices.begin(), devices.end(), [&](const auto& device) {
        return device->serviceType() == devices[0]->serviceType() &&
               device->AES256Key() == devices[0]->AES256Key();
      });
    };
    ASSERT_TRUE(QVRunMainQueueUntil(agreed, std::chrono::seconds(3))) << "round " << round;
    const auto latecomer = QVHandoffDocumentMetaStorage::storageWithContainerURL(folder);
    ASSERT_EQ(latecomer->AES256Key(), devices[0]->AES256Key())
        << "the file holds another key, round " << round;
  }
}
