// SPDX-License-Identifier: MIT
// A peer that knows the key may still name anything on this machine: only regular files are served, and
// the server's private copy is bounded, unreadable by others, and gone afterwards.
#include "Foundation/QVFileOperations.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVHandoffServerFixture.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

class HostileHandoffTest : public QVHandoffServerTest {
protected:
  QVAnswer handoff(const std::string& path) { return post("/api/handoff", encrypt({{"filePath", path}})); }
};

TEST_F(HostileHandoffTest, OnlyRegularFilesAreServedAndOthersAnswer500AtOnce) {
  const std::string fifo = (docs_ / "pipe.pdf").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string folder = (docs_ / "Folder.pdf").string();
  ASSERT_TRUE(QVCreateDirectory(folder));
  QVWriteFile(folder + "/inside.pdf", QVTestBytes(10));
  ASSERT_EQ(mknod((docs_ / "s.pdf").c_str(), S_IFSOCK | 0600, 0), 0); // a socket's inode, as bind makes
  // Nobody writes the FIFO and /dev/zero never ends: a server that opened either would not answer.
  const std::vector<std::string> paths{fifo, "/dev/zero", folder, (docs_ / "s.pdf").string(), "/dev/null"};
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    expectErrorAnswer(handoff(path));
    EXPECT_TRUE(log_.contains("Handoff document is not a regular file: " + path, "error"));
  }
  // A link is followed to what it names.
  const std::string link = (docs_ / "link.pdf").string();
  std::filesystem::create_symlink(fifo, link);
  expectErrorAnswer(handoff(link));
  // Refused before the host is asked to save, and before anything was copied.
  EXPECT_TRUE(notifications(QVHandoffManagerWillHandoffLocalDocumentNotification).empty());
  EXPECT_TRUE(leftNothingBehind());

  // A link to a document is served.
  const auto pdf = document("Doc.pdf", QVTestBytes(3000, 4));
  std::filesystem::create_symlink(pdf->filePath(), link + ".2");
  const auto answer = handoff(link + ".2");
  ASSERT_EQ(answer.status(), 200);
  EXPECT_TRUE(QVHandoffAES256Data::decryptWithKeyData(answer.body, key_) == QVTestBytes(3000, 4));
  EXPECT_TRUE(leftNothingBehind());
}

TEST_F(HostileHandoffTest, APathWithANulByteIsRefusedNotServedCutShort) {
  const std::string path = document("Doc.pdf", QVTestBytes(100))->filePath();
  for (const std::string& tail : {std::string("\0", 1), std::string("\0.missing", 9)}) {
    expectErrorAnswer(handoff(path + tail));
  }
  EXPECT_EQ(log_.count("Handoff document file path contains a NUL byte"), 2u);
  EXPECT_TRUE(notifications(QVHandoffManagerWillHandoffLocalDocumentNotification).empty());
  EXPECT_TRUE(leftNothingBehind());
}

TEST_F(HostileHandoffTest, ThePrivateCopyIs0600InA0700FolderWhileItExists) {
  const auto pdf = document("Doc.pdf", QVTestBytes(2000, 1));
  ASSERT_EQ(chmod(pdf->filePath().c_str(), 0644), 0);
  struct stat copied {};
  struct stat folder {};
  std::string copyPath;
  manager_->setCopyFileBlock([&](const std::string& from, const std::string& to, QVError* error) {
    const bool done = QVHandoffManagerDefaultCopyFileBlock(from, to, error);
    copyPath = to;
    stat(to.c_str(), &copied);
    stat(std::filesystem::path(to).parent_path().c_str(), &folder);
    return done;
  });
  const auto answer = handoff(pdf->filePath());
  ASSERT_EQ(answer.status(), 200);
  EXPECT_TRUE(QVHandoffAES256Data::decryptWithKeyData(answer.body, key_) == QVTestBytes(2000, 1));
  EXPECT_EQ(copied.st_mode & 07777, 0600u);
  EXPECT_EQ(folder.st_mode & 07777, 0700u);
  EXPECT_EQ(folder.st_uid, geteuid());
  EXPECT_TRUE(leftNothingBehind());
  EXPECT_FALSE(QVFileExists(copyPath));
}

// The copy under the default block, apart from the server.
TEST(QVCopyRegularFileTest, RefusesWhatIsNotARegularFileAndStopsAtTheSizeSeenAtOpen) {
  const QVTemporaryFolder folder;
  const std::string fifo = (folder.path() / "fifo").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string to = (folder.path() / "copy").string();
  for (const auto& [source, code] : std::vector<std::pair<std::string, int>>{{fifo, EINVAL},
                                                                             {"/dev/zero", EINVAL},
                                                                             {folder.path().string(), EISDIR},
                                                                             {to + ".missing", ENOENT}}) {
    SCOPED_TRACE(source);
    QVError error;
    EXPECT_FALSE(QVCopyRegularFile(source, to, &error));
    EXPECT_EQ(error, QVErrorFromErrno(code));
    EXPECT_FALSE(QVFileExists(to));
  }
  // A file of the proc file system says it is empty and then reads on: the copy keeps to what it said.
  QVError error;
  ASSERT_TRUE(QVCopyRegularFile("/proc/self/status", to, &error)) << error.description();
  EXPECT_EQ(std::filesystem::file_size(to), 0u);
  // A destination that exists is never written over.
  const std::string source = (folder.path() / "source").string();
  QVWriteFile(source, QVTestBytes(5000, 2));
  EXPECT_FALSE(QVCopyRegularFile(source, to, &error));
  EXPECT_EQ(error, QVErrorFromErrno(EEXIST));
  std::filesystem::remove(to);
  ASSERT_TRUE(QVCopyRegularFile(source, to, &error));
  EXPECT_TRUE(QVReadFile(to) == QVTestBytes(5000, 2));
  EXPECT_EQ(std::filesystem::status(to).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

} // namespace

namespace {

// A save back's path with a NUL in it would be written cut short, raw or escaped alike.
TEST(QVHTTPQueryTest, PairsHoldingANulByteAreLeftOut) {
  const auto params = QVHTTPConnection::paramsFromRequestURI(
      std::string("/api/save_back?path=/a\0b&size=1&mod\0ified=2&pdfPoint=%7B1%2C2%7D&nul=x%00", 73));
  EXPECT_EQ(params, (std::map<std::string, std::string>{{"size", "1"}, {"pdfPoint", "{1,2}"}}));
}

} // namespace
