#include "Foundation/QVExtendedAttributes.h"
#include "Foundation/QVLog.h"
#include "support/QVPrivateCachesEnvironment.h"

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
  EXPECT_EQ(std::tie(read->filePath(), read->deviceName(), read->productName(), read->contentType()),
            std::tie(source->filePath(), source->deviceName(), source->productName(), source->contentType()));
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
