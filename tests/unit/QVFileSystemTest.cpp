// SPDX-License-Identifier: MIT
#include "Foundation/QVFileHandle.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVMIMEType.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVPrivateTemporaryFile.h"
#include "Foundation/QVUUID.h"
#include "support/QVTestSupport.h"

#include <string_view>

#include <cerrno>
#include <cstdlib>

#include <sys/stat.h>
#include <sys/xattr.h>

namespace fs = std::filesystem;

class QVFileSystemTest : public ::testing::Test {
protected:
  QVTemporaryFolder folder_;
};

TEST_F(QVFileSystemTest, UniquePathsNeverNameSomethingThatExists) {
  const std::string report = folder_.file("Report.pdf");
  EXPECT_EQ(QVGenerateMacStyleUniquePath(report), report);
  QVWriteFile(report, {});
  EXPECT_EQ(QVGenerateMacStyleUniquePath(report), folder_.file("Report 2.pdf"));
  QVWriteFile(folder_.file("Report 2.pdf"), {});
  fs::create_symlink(folder_.file("nowhere"), folder_.file("Report 3.pdf")); // dangling, still taken
  EXPECT_EQ(QVGenerateMacStyleUniquePath(report), folder_.file("Report 4.pdf"));
  EXPECT_EQ(QVGenerateMacStyleUniquePath(report, 7), folder_.file("Report 7.pdf"));
  fs::create_directory(folder_.file("Folder.d"));
  EXPECT_EQ(QVGenerateMacStyleUniquePath(folder_.file("Folder.d") + "/"), folder_.file("Folder.d 2"));
  QVWriteFile(folder_.file("README"), {});
  EXPECT_EQ(QVGenerateMacStyleUniquePath(folder_.file("README")), folder_.file("README 2"));

  // Upper-case version 4: the shape of the service types peers derive from it.
  const std::string uuid = QVUUIDString();
  ASSERT_EQ(uuid.size(), 36u);
  EXPECT_EQ(uuid.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << uuid;
  EXPECT_EQ((std::string{uuid[8], uuid[13], uuid[14], uuid[18], uuid[23]}), "--4--") << uuid;
  EXPECT_EQ(std::count(uuid.begin(), uuid.end(), '-'), 4) << uuid;
  EXPECT_NE(std::string_view("89AB").find(uuid[19]), std::string_view::npos) << uuid;
  EXPECT_NE(uuid, QVUUIDString());
  EXPECT_EQ(QVMIMETypeForPath("/a/Report.PDF"), "application/pdf");
  EXPECT_EQ(QVMIMETypeForPath("notes.qvunknownext"), "application/octet-stream");
}

TEST_F(QVFileSystemTest, CopyAndReplacingMoveLeaveNoHalfFiles) {
  const std::string source = folder_.file("source.bin"), destination = folder_.file("destination.bin");
  const QVData bytes = QVTestBytes(3 << 20);
  auto handle = QVFileHandle::forCreatingAtPath(source);
  ASSERT_TRUE(handle && handle->write(bytes));
  handle->close();
  EXPECT_EQ(QVFileHandle::forReadingAtPath(source)->read(bytes.size() + 10), bytes);
  const auto past = fs::file_time_type::clock::now() - std::chrono::hours(30);
  fs::last_write_time(source, past);

  QVError error;
  ASSERT_TRUE(QVCopyItem(source, destination, &error)) << error.description();
  EXPECT_EQ(QVReadFile(destination), bytes);
  EXPECT_EQ(fs::last_write_time(destination), past) << "a copy keeps the document's date";
  EXPECT_FALSE(QVCopyItem(source, destination, &error));
  EXPECT_EQ(error, QVErrorFromErrno(EEXIST));
  ASSERT_TRUE(QVCreateDirectory(folder_.file("tree/a")));
  QVWriteFile(folder_.file("tree/a/b"), {1, 2});
  ASSERT_TRUE(QVCopyItem(folder_.file("tree"), folder_.file("tree copy"), &error));
  EXPECT_EQ(QVReadFile(folder_.file("tree copy/a/b")), (QVData{1, 2}));

  QVWriteFile(destination, {9});
  EXPECT_FALSE(QVMoveItemReplacing(folder_.file("absent"), destination, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(QVReadFile(destination), QVData{9}) << "a failed move leaves the destination as it was";
  ASSERT_TRUE(QVMoveItemReplacing(source, destination, &error));
  EXPECT_EQ(QVReadFile(destination), bytes);
  // A folder in the way is the user's data: named plainly, with a trailing "/", or reached through a link.
  fs::create_directory_symlink(folder_.file("tree"), folder_.file("link"));
  for (const std::string& target : {folder_.file("tree"), folder_.file("tree") + "/", folder_.file("link")}) {
    EXPECT_FALSE(QVMoveItemReplacing(destination, target, &error)) << target;
    EXPECT_EQ(error.code, EISDIR) << target;
  }
  EXPECT_EQ(QVReadFile(folder_.file("tree/a/b")), (QVData{1, 2}));
  EXPECT_EQ(QVReadFile(destination), bytes);
  fs::remove(folder_.file("link"));
  ASSERT_TRUE(QVMoveItemReplacing(destination, folder_.file("tree/a/b"), &error));
  const auto attributes = QVAttributesOfItem(folder_.file("tree/a/b"), &error);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->fileSize, bytes.size());
  EXPECT_FALSE(attributes->isDirectory);
  EXPECT_FALSE(QVAttributesOfItem(folder_.file("absent"), &error));
  EXPECT_TRUE(QVRemoveItem(folder_.file("tree copy")));
  EXPECT_FALSE(QVRemoveItem(folder_.file("tree copy")));
  EXPECT_FALSE(QVCreateDirectory(folder_.file("tree/a/b/below-a-file")));
  EXPECT_EQ(folder_.entries(), (std::vector<std::string>{"tree", "tree/a", "tree/a/b"}));
}

TEST_F(QVFileSystemTest, MoveAcrossFileSystemsGoesThroughAHiddenCopy) {
  struct stat here, shm;
  if (stat("/dev/shm", &shm) != 0 || stat(folder_.path().c_str(), &here) != 0 || shm.st_dev == here.st_dev) {
    GTEST_SKIP() << "no second file system at /dev/shm";
  }
  const std::string source = "/dev/shm/qvhandoff-move-" + QVUUIDString();
  QVWriteFile(source, QVTestBytes(100000, 3));
  QVWriteFile(folder_.file("original.pdf"), {1});
  QVError error;
  ASSERT_TRUE(QVMoveItemReplacing(source, folder_.file("original.pdf"), &error)) << error.description();
  EXPECT_EQ(QVReadFile(folder_.file("original.pdf")), QVTestBytes(100000, 3));
  EXPECT_FALSE(QVFileExists(source));
  EXPECT_EQ(folder_.entries(), (std::vector<std::string>{"original.pdf"}));
}

TEST_F(QVFileSystemTest, PrivateFilesAreTheUsersAloneAndUnnamedOnesAppearWhole) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string previousRuntime = runtime ? runtime : "";
  unsetenv("XDG_RUNTIME_DIR");
  setenv("TMPDIR", folder_.path().c_str(), 1);
  const auto privateFolder = QVPrivateTemporaryDirectory();
  ASSERT_TRUE(privateFolder);
  EXPECT_EQ(fs::status(*privateFolder).permissions() & fs::perms::all, fs::perms::owner_all);
  QVError error;
  const auto file = QVCreatePrivateTemporaryFile(&error);
  ASSERT_TRUE(file) << error.description();
  EXPECT_EQ(fs::path(file->path).parent_path(), *privateFolder);
  EXPECT_EQ(fs::status(file->path).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  // A folder that others may enter is refused, never repaired: someone may already hold a way in.
  fs::permissions(*privateFolder, fs::perms::owner_all | fs::perms::others_exec);
  EXPECT_FALSE(QVPrivateTemporaryDirectory());
  EXPECT_FALSE(QVCreatePrivateTemporaryFile(&error));
  unsetenv("TMPDIR");
  if (!previousRuntime.empty()) setenv("XDG_RUNTIME_DIR", previousRuntime.c_str(), 1);

  // An unnamed file takes the original's mode and attributes, and gets a name only once, atomically.
  const std::string original = folder_.file("original.pdf");
  QVWriteFile(original, {1});
  fs::permissions(original, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  ASSERT_EQ(setxattr(original.c_str(), "user.label", "red", 3, 0), 0);
  const auto entries = folder_.entries();
  auto unnamed = QVCreateUnnamedFile(folder_.path().string(), &error);
  if (!unnamed) GTEST_SKIP() << "no unnamed files on this file system: " << error.description();
  ASSERT_TRUE(QVWriteAll(unnamed->descriptor.get(), QVTestBytes(70000).data(), 70000));
  EXPECT_EQ(folder_.entries(), entries) << "nothing shows before it is linked";
  ASSERT_TRUE(QVCopyOwnerModeAndAttributes(original, unnamed->descriptor.get()));
  EXPECT_FALSE(QVLinkOpenFile(unnamed->descriptor.get(), original, &error));
  EXPECT_EQ(error.code, EEXIST);
  ASSERT_TRUE(QVLinkOpenFile(unnamed->descriptor.get(), folder_.file("original 2.pdf"), &error));
  EXPECT_EQ(QVReadFile(folder_.file("original 2.pdf")), QVTestBytes(70000));
  EXPECT_EQ(fs::status(folder_.file("original 2.pdf")).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  char label[8] = {};
  EXPECT_EQ(getxattr(folder_.file("original 2.pdf").c_str(), "user.label", label, sizeof(label)), 3);
  EXPECT_STREQ(label, "red");
  EXPECT_TRUE(QVSyncParentFolder(original));
}
