// SPDX-License-Identifier: MIT
#include "Foundation/QVExtendedAttributes.h"
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffCopyIndex.h"
#include "QVHandoff/QVHandoffPaths.h"
#include "support/QVPrivateCachesEnvironment.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace fs = std::filesystem;
using namespace std::chrono;

namespace {

std::shared_ptr<QVHandoffDocumentInfo> remoteDocument() {
  auto info = QVHandoffDocumentInfo::make();
  info->setFilePath("/Users/a/Report.pdf");
  info->setFileSize(123456789012);
  info->setFileModificationDate(sys_days{2024y / 3 / 5} + 14h + 7min + 9s + 123ms);
  info->setDeviceName("Mac");
  info->setDeviceType(3);
  info->setProductName("Paperloom");
  info->setContentType("com.adobe.pdf");
  return info;
}

} // namespace

class QVHandoffManagerFilesTest : public ::testing::Test {
protected:
  QVHandoffManagerFilesTest() { QVWriteFile(copy_, QVTestBytes(10)); }
  QVTemporaryFolder folder_;
  std::string copy_ = folder_.file("copy.pdf");
  QVLogCapture log_;
};

TEST_F(QVHandoffManagerFilesTest, TagsRoundTripThroughRealAttributesAndUntaggingKeepsTheContentType) {
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(copy_));
  EXPECT_TRUE(log_.lines().empty()) << "an untagged file is no error";
  const auto source = remoteDocument();
  QVHandoffManager::addDocumentInfo(*source, copy_);
  const auto read = QVHandoffManager::documentInfoForFileAtPath(copy_);
  ASSERT_TRUE(read);
  EXPECT_EQ(std::make_tuple(read->filePath(), read->deviceName(), read->productName(), read->contentType()),
            std::make_tuple(source->filePath(), source->deviceName(), source->productName(),
                            source->contentType()));
  EXPECT_EQ(read->fileSize(), source->fileSize());
  EXPECT_EQ(read->fileModificationDate(), source->fileModificationDate());
  EXPECT_EQ(read->deviceType(), 3);
  EXPECT_EQ(QVGetExtendedAttribute(copy_, QVHandoffFileSizeAttributeName),
            (QVData{0x14, 0x1A, 0x99, 0xBE, 0x1C, 0, 0, 0}));
  EXPECT_EQ(QVHandoffManager::stringForXattrName(QVHandoffFileModificationDateAttributeName, copy_),
            "2024-03-05T14:07:09.123");

  QVHandoffManager::addDocumentInfo(*source, folder_.file("gone.pdf"));
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(folder_.file("gone.pdf")));
  EXPECT_EQ(log_.count("File not found at path " + folder_.file("gone.pdf")), 2u);
  const auto lines = log_.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("QVHandoff/QVHandoffManager:") != std::string::npos &&
           line.find(" QVHandoffManager::addDocumentInfo File not found") != std::string::npos;
  })) << "tagging logs as the manager's operation, wherever its code lives";

  QVHandoffManager::setOverriddenFileModificationDateToCurrentDateForFileAtPath(copy_);
  QVHandoffManager::removeDocumentInfoFromFileAtPath(copy_);
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(copy_) ||
               QVHandoffManager::overriddenFileModificationDateForFileAtPath(copy_));
  EXPECT_EQ(QVHandoffManager::handoffContentTypeForFileAtPath(copy_), "com.adobe.pdf")
      << "untagging keeps it";
}

TEST_F(QVHandoffManagerFilesTest, PartialOrBrokenTagsReadAsAbsent) {
  QVHandoffManager::addDocumentInfo(*remoteDocument(), copy_);
  QVRemoveExtendedAttribute(copy_, QVHandoffDeviceTypeAttributeName);
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(copy_));
  EXPECT_TRUE(log_.contains("Couldn't load device type from xattr", "error"));
  QVSetExtendedAttribute(copy_, QVHandoffDeviceNameAttributeName, {0xC0, 0xAF}); // overlong, not UTF-8
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(copy_));
  EXPECT_TRUE(log_.contains("Couldn't load device name xattr", "error"));
  QVSetExtendedAttribute(copy_, QVHandoffFileSizeAttributeName, {1, 2, 3, 4});
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(copy_));
  EXPECT_TRUE(log_.contains("Couldn't load file size from xattr", "error"));

  // Attribute values over 64 KiB are refused by every Linux file system.
  const std::string tooLong(70000, 'x'), optional = folder_.file("optional.pdf"),
                                         essential = folder_.file("e.pdf");
  QVWriteFile(optional, {});
  QVWriteFile(essential, {});
  auto document = remoteDocument();
  document->setProductName(tooLong);
  const auto previous = QVLogging::level();
  QVLogging::setLevel(spdlog::level::debug);
  QVHandoffManager::addDocumentInfo(*document, optional);
  QVLogging::setLevel(previous);
  EXPECT_TRUE(log_.contains("Couldn't set xattr for product name", "debug"));
  EXPECT_TRUE(QVHandoffManager::documentInfoForFileAtPath(optional)) << "the product name is optional";
  EXPECT_EQ(QVHandoffManager::handoffContentTypeForFileAtPath(optional), "com.adobe.pdf");
  document->setFilePath(tooLong);
  QVHandoffManager::addDocumentInfo(*document, essential);
  EXPECT_TRUE(log_.contains("Couldn't set xattr for file path", "error"));
  EXPECT_FALSE(QVGetExtendedAttribute(essential, QVHandoffContentTypeAttributeName))
      << "tagging stops at once";
}

TEST_F(QVHandoffManagerFilesTest, OverriddenDateWinsOnlyWhenLater) {
  const QVDate onDisk = sys_days{2023y / 6 / 1} + 10h + 500ms;
  fs::last_write_time(copy_, fs::file_time_type::clock::from_sys(onDisk));
  QVHandoffManager::setOverriddenFileModificationDate(onDisk, copy_);
  EXPECT_EQ(QVHandoffManager::overriddenFileModificationDateForFileAtPath(copy_), floor<seconds>(onDisk));
  EXPECT_EQ(QVHandoffManager::latestFileModificationDateForFileAtPath(copy_), onDisk);
  QVHandoffManager::setOverriddenFileModificationDate(onDisk + 1900ms, copy_);
  EXPECT_EQ(QVHandoffManager::stringForXattrName(QVHandoffOverriddenFileModificationDateAttributeName, copy_),
            "2023-06-01T10:00:02.000");
  EXPECT_EQ(QVHandoffManager::latestFileModificationDateForFileAtPath(copy_), floor<seconds>(onDisk) + 2s);
  EXPECT_FALSE(QVHandoffManager::latestFileModificationDateForFileAtPath(folder_.file("gone")));
  EXPECT_TRUE(log_.contains("Couldn't get attributes of item at path " + folder_.file("gone") +
                                " due Error Domain=QVPOSIXErrorDomain Code=2",
                            "error"));

  const QVDate date = sys_days{2024y / 1 / 1};
  EXPECT_TRUE(QVHandoffManager::date(date + 999ms, date) && QVHandoffManager::date(date - 999ms, date));
  EXPECT_FALSE(QVHandoffManager::date(date + 1000ms, date) || QVHandoffManager::date(date - 1000ms, date));
  EXPECT_TRUE(QVHandoffManager::date(std::nullopt, date));
}

TEST_F(QVHandoffManagerFilesTest, HandoffPathsStayInsideTheHandoffFolder) {
  const fs::path handoff = QVHandoffManager::defaultHandoffDirectoryPath();
  EXPECT_EQ(handoff, QVPrivateCachesEnvironment::caches_->path() / "com.quorvel.handoff");
  auto document = remoteDocument();
  const std::string path = QVHandoffManager::handoffFilePathForDocumentWithInfo(*document);
  EXPECT_EQ(path, (handoff / "Mac/Users/a/Report.pdf").string());
  EXPECT_TRUE(fs::is_directory(handoff / "Mac/Users/a") && !fs::exists(path));
  document->setDeviceName("..");
  document->setFilePath("/../../etc/./passwd");
  EXPECT_EQ(QVHandoffManager::handoffFilePathForDocumentWithInfo(*document),
            (handoff / "etc/passwd").string());

  const std::string first =
      QVHandoffManager::uniqueEmptyHandoffFilePathForDocumentWithInfo(*remoteDocument());
  const std::string second =
      QVHandoffManager::uniqueEmptyHandoffFilePathForDocumentWithInfo(*remoteDocument());
  EXPECT_NE(first, second);
  for (const fs::path made : {first, second}) {
    EXPECT_EQ(made.parent_path().parent_path() / made.filename(), handoff / "Report.pdf");
    EXPECT_TRUE(fs::is_regular_file(made) && fs::file_size(made) == 0);
  }
  document->setFilePath("/etc/..");
  EXPECT_EQ(fs::path(QVHandoffManager::uniqueEmptyHandoffFilePathForDocumentWithInfo(*document)).filename(),
            "etc");
  EXPECT_TRUE(QVHandoffManager::handoffReadyFilePath(first));
  EXPECT_FALSE(QVHandoffManager::handoffReadyFilePath(handoff.string()));
  EXPECT_FALSE(QVHandoffManager::handoffReadyFilePath(folder_.file("gone")));
}

TEST_F(QVHandoffManagerFilesTest, TheHandoffIsAnnouncedBeforeItsCopyAndSuccessClearsTheError) {
  auto manager = QVHandoffManager::defaultManager();
  const std::string original = folder_.file("original.pdf"), served = folder_.file("served.pdf");
  QVWriteFile(original, {7, 7});
  bool copiedYet = true;
  QVNotificationObservation observation(QVNotificationCenter::defaultCenter(),
                                        QVHandoffManagerWillHandoffLocalDocumentNotification, manager.get(),
                                        [&](const QVNotification&) { copiedYet = fs::exists(served); });
  QVError error{"stale", 1, {}};
  ASSERT_TRUE(manager->copyHandoffDocumentAtPath(original, served, &error));
  EXPECT_FALSE(copiedYet);
  EXPECT_EQ(error, QVError{});
  EXPECT_FALSE(manager->moveSavedBackDocumentAtPath(folder_.file("gone"), original, &error));
  EXPECT_EQ(error.code, ENOENT);
}

namespace {

// How editors save: a new file written beside the copy and renamed over it, attributes and all gone.
void saveByRename(const std::string& path, const QVData& content) {
  const std::string temporary = path + ".new";
  QVWriteFile(temporary, content);
  fs::rename(temporary, path);
}

} // namespace

TEST_F(QVHandoffManagerFilesTest, TagsSurviveASaveByRenameThroughTheIndex) {
  const auto source = remoteDocument();
  QVHandoffManager::addDocumentInfo(*source, copy_);
  saveByRename(copy_, QVTestBytes(20, 2));
  ASSERT_FALSE(QVGetExtendedAttribute(copy_, QVHandoffFilePathAttributeName));
  auto read = QVHandoffManager::documentInfoForFileAtPath(copy_);
  ASSERT_TRUE(read);
  EXPECT_TRUE(read->isEqualToDocumentInfo(*source));
  EXPECT_EQ(std::make_tuple(read->deviceType(), read->productName(), read->contentType()),
            std::make_tuple(source->deviceType(), source->productName(), source->contentType()));
  EXPECT_EQ(QVHandoffManager::stringForXattrName(QVHandoffFilePathAttributeName, copy_), source->filePath())
      << "the index gives the tags back to the file";
  EXPECT_TRUE(log_.lines().empty());

  // Re-tagging (as a save back does) changes both places; a relative path names the same copy.
  source->setFilePath("/Users/a/Report 2.pdf");
  source->setFileSize(7);
  QVHandoffManager::addDocumentInfo(*source, copy_);
  saveByRename(copy_, QVTestBytes(30, 3));
  const fs::path workingFolder = fs::current_path();
  fs::current_path(folder_.path());
  read = QVHandoffManager::documentInfoForFileAtPath("./copy.pdf");
  fs::current_path(workingFolder);
  ASSERT_TRUE(read);
  EXPECT_EQ(std::make_tuple(read->filePath(), read->fileSize()),
            std::make_tuple(source->filePath(), source->fileSize()));

  // Untagging removes both; the content type stays, as it does in the attributes.
  QVHandoffManager::removeDocumentInfoFromFileAtPath(copy_);
  saveByRename(copy_, QVTestBytes(40, 4));
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(copy_));
  EXPECT_EQ(QVHandoffManager::handoffContentTypeForFileAtPath(copy_), "com.adobe.pdf");

  // Entries of copies that are gone are dropped; a file that was never tagged is simply untagged.
  const std::string other = folder_.file("other.pdf");
  QVWriteFile(other, {1});
  QVHandoffManager::addDocumentInfo(*source, other);
  fs::remove(other);
  EXPECT_GE(QVHandoffCopyIndex::shared().dropStale(), 1u);
  EXPECT_FALSE(QVHandoffCopyIndex::shared().tags(other));
  QVWriteFile(other, {1});
  EXPECT_FALSE(QVHandoffManager::documentInfoForFileAtPath(other));

  // Kept where only this user can read it.
  const fs::path state = QVHandoffPaths::stateFolder();
  EXPECT_EQ(fs::status(state).permissions() & fs::perms::all, fs::perms::owner_all);
  EXPECT_EQ(fs::status(state / "copies.sqlite").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(QVHandoffManagerFilesTest, TwoProcessesRecordCopiesInTheIndexAtOnce) {
  // A running server and a one-shot command: each process has its own connection to the one database.
  constexpr int kCopiesPerProcess = 150;
  auto record = [&](const char* prefix) {
    QVHandoffCopyIndex index;
    bool all = true;
    for (int i = 0; i < kCopiesPerProcess; ++i) {
      const std::string path = folder_.file(fmt::format("{}-{}.pdf", prefix, i));
      QVWriteFile(path, {});
      all = index.setTags(path, {{QVHandoffFilePathAttributeName, {'x'}}, {"n", {uint8_t(i)}}}) && all;
    }
    return all;
  };
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(record("child") ? 0 : 1);
  EXPECT_TRUE(record("parent"));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a write of the other process failed";
  QVHandoffCopyIndex index;
  for (const char* prefix : {"child", "parent"}) {
    for (int i = 0; i < kCopiesPerProcess; ++i) {
      const auto tags = index.tags(folder_.file(fmt::format("{}-{}.pdf", prefix, i)));
      ASSERT_TRUE(tags) << prefix << i;
      EXPECT_EQ(tags->at("n"), QVData{uint8_t(i)});
    }
  }
}
