// SPDX-License-Identifier: MIT
// Handed-off copies edited the way Linux programs save them (a new file renamed over the old one, which takes
// the extended attributes with it), and copies on a file system that has no user attributes at all: the copy
// is still known and its save back still lands.

#include "Foundation/QVExtendedAttributes.h"
#include "QVHandoffServerFixture.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>

namespace fs = std::filesystem;

namespace {

int run(const std::string& command) {
  // Bounded: an editor that hangs fails the case instead of the run.
  return std::system(("timeout 20 " + command + " >/dev/null 2>&1").c_str());
}

std::string quoted(const std::string& path) {
  return "'" + path + "'";
}

// A small file system without user attributes mounted at `path` for the life of the object: a vfat image
// where the kernel has vfat, else ramfs.
class QVAttributelessMount {
public:
  explicit QVAttributelessMount(const fs::path& path) : path_(path) {
    if (geteuid() != 0) return;
    fs::create_directories(path_);
    const std::string image = (folder_.path() / "stick.img").string();
    if (run("truncate -s 8M " + quoted(image)) == 0 && run("mkfs.vfat " + quoted(image)) == 0 &&
        run("mount -o loop,umask=077 " + quoted(image) + " " + quoted(path_.string())) == 0) {
      kind_ = "vfat";
    } else if (mount("ramfs", path_.c_str(), "ramfs", 0, "mode=0700") == 0) {
      kind_ = "ramfs";
    }
  }
  ~QVAttributelessMount() {
    if (!kind_.empty()) umount2(path_.c_str(), MNT_DETACH);
  }
  // Empty when none could be made.
  const std::string& kind() const { return kind_; }

private:
  QVTemporaryFolder folder_;
  fs::path path_;
  std::string kind_;
};

class EditedCopiesTest : public QVHandoffServerTest {
protected:
  std::string handedOff(const std::shared_ptr<QVHandoffDocumentInfo>& local) {
    const auto outcome = ended(handoff(remote(*local, device_)));
    return outcome->completions.empty() ? std::string() : outcome->completions.front();
  }
  // Reads the copy's tags as `qvhandoff save-back` does and saves it back; the copy must be re-tagged with
  // the origin's new size.
  void expectSavedBack(const std::string& copy, const std::string& origin, const std::string& editor) {
    const auto tags = QVHandoffManager::documentInfoForFileAtPath(copy);
    ASSERT_TRUE(tags) << editor << ": the copy is no longer known";
    EXPECT_EQ(tags->filePath(), origin) << editor;
    EXPECT_EQ(tags->deviceName(), device_) << editor;
    const auto outcome = ended(saveBack(copy, tags));
    ASSERT_EQ(outcome->completions, std::vector<std::string>{copy}) << editor;
    EXPECT_TRUE(QVReadFile(origin) == QVReadFile(copy)) << editor;
    const auto retagged = QVHandoffManager::documentInfoForFileAtPath(copy);
    ASSERT_TRUE(retagged) << editor;
    EXPECT_EQ(retagged->fileSize(), fs::file_size(origin)) << editor;
  }

  std::string device_ = "Studio";
};

TEST_F(EditedCopiesTest, ACopySavedByRenameIsStillKnownAndSavesBack) {
  addPeer(device_, key_, server_.port());
  const std::string text = "alpha beta gamma\n";
  const auto local = document("Notes.txt", QVData(text.begin(), text.end()));
  const struct {
    const char* editor;
    std::string command; // "%" stands for the copy
  } editors[] = {
      {"sed -i", "sed -i s/alpha/ALPHA/ %"},
      {"gio save", "sh -c 'printf \"saved by gio\\n\" | gio save \"$0\"' %"},
      {"write-then-rename",
       "python3 -c 'import os,sys; p=sys.argv[1]; open(p+\".new\",\"w\").write(\"by python\\n\"); "
       "os.replace(p+\".new\",p)' %"},
  };
  for (const auto& e : editors) {
    const std::string program = std::string(e.editor).substr(0, std::string(e.editor).find_first_of(" -"));
    const std::string needed = program == "write" ? "python3" : program;
    if (std::system(("command -v " + needed + " >/dev/null 2>&1").c_str()) != 0) {
      std::cout << "[ SKIPPED  ] " << e.editor << ": not installed here\n";
      continue;
    }
    const std::string copy = handedOff(local);
    ASSERT_FALSE(copy.empty()) << e.editor;
    std::string command = e.command;
    command.replace(command.find('%'), 1, quoted(copy));
    const QVData before = QVReadFile(copy);
    ASSERT_EQ(run(command), 0) << e.editor;
    ASSERT_FALSE(QVReadFile(copy) == before) << e.editor << " did not edit the copy";
    EXPECT_FALSE(QVGetExtendedAttribute(copy, QVHandoffFilePathAttributeName))
        << e.editor << " kept the tags";
    expectSavedBack(copy, local->filePath(), e.editor);
    fs::remove_all(manager_->handoffDirectoryPath());
  }
}

TEST_F(EditedCopiesTest, OnAFileSystemWithoutUserAttributesTheIndexAloneKeepsTheCopy) {
  device_ = "Stick";
  // Copies from this peer land below this folder, on the small file system.
  const QVAttributelessMount stick(fs::path(manager_->handoffDirectoryPath()) / device_);
  if (stick.kind().empty())
    GTEST_SKIP() << "needs root and a vfat image or ramfs mount, which this machine refuses";
  addPeer(device_, key_, server_.port());
  const auto local = document("Report.pdf", QVTestBytes(200000, 4));
  const std::string copy = handedOff(local);
  ASSERT_FALSE(copy.empty());
  ASSERT_FALSE(QVSetExtendedAttribute(copy, "probe", {1}))
      << stick.kind() << " has user attributes after all";
  EXPECT_FALSE(log_.contains("Couldn't set xattr", "error")) << "no attributes is no error there";
  QVWriteFile(copy, QVTestBytes(300000, 5));
  expectSavedBack(copy, local->filePath(), stick.kind());
}

} // namespace
