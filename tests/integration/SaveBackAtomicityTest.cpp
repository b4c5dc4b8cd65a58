// SPDX-License-Identifier: MIT
// The origin's side of a save back under overlap, refusal and loss: an acknowledged upload is never
// overwritten, a folder is never replaced, what is written is private, and nothing is left behind.

#include "Foundation/QVExtendedAttributes.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVHandoff/QVHandoffPaths.h"
#include "QVHandoff/QVHandoffSaveBackReceiver.h"
#include "QVHandoffServerFixture.h"

#include <sys/stat.h>

#include <set>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class SaveBackAtomicityTest : public QVHandoffServerTest {
protected:
  // An original that has not been touched for an hour, so that a replacement can never pass for it.
  std::string original(const std::string& name, const QVData& content, mode_t mode = 0644) {
    const std::string path = (docs_ / name).string();
    QVWriteFile(path, content);
    chmod(path.c_str(), mode);
    fs::last_write_time(path, fs::file_time_type::clock::now() - 1h);
    return path;
  }
  // The save back of the original as it was recorded at handoff (its size unless told otherwise).
  static std::string uploadURI(const std::string& path, std::optional<uint64_t> size = {}) {
    const auto date = fs::is_regular_file(path)
                          ? QVHandoffManager::latestFileModificationDateForFileAtPath(path)
                          : std::nullopt;
    const uint64_t recorded = size ? *size : (fs::is_regular_file(path) ? fs::file_size(path) : 0);
    return fmt::format("/api/save_back?path={}&size={}&modificationDate={}", path, recorded,
                       date ? QVHandoffHTTPConnection::dateFormatter().stringFromDate(*date) : "");
  }
  QVURLRequest upload(const std::string& path, const QVData& content, std::optional<uint64_t> size = {}) {
    return request(uploadURI(path, size), QVHandoffAES256Data::encryptWithKeyData(content, key_).value());
  }
  // Where each answered upload landed, by upload.
  std::vector<std::string> landedPaths(const std::vector<QVAnswer>& answers) {
    std::vector<std::string> paths;
    for (const auto& answer : answers) {
      EXPECT_EQ(answer.status(), 200);
      paths.push_back(decrypt(answer.body).value("filePath", std::string()));
    }
    return paths;
  }
  std::vector<std::string> documents() const { return folder_.entries("docs"); }
  static mode_t modeOf(const std::string& path) {
    struct stat info {};
    stat(path.c_str(), &info);
    return info.st_mode & 07777;
  }
};

TEST_F(SaveBackAtomicityTest, OverlappingSaveBacksNeverOverwriteAnAcknowledgedUpload) {
  // Ten at once over an unchanged original: the first replaces it, the nine others land beside it.
  const std::string unchanged = original("Ten.bin", QVTestBytes(1000, 1));
  std::vector<QVURLRequest> requests;
  std::vector<QVData> contents;
  for (uint32_t i = 0; i < 10; ++i) {
    contents.push_back(QVTestBytes(1000 + i * 4099, 100 + i));
    requests.push_back(upload(unchanged, contents.back()));
  }
  auto landed = landedPaths(perform(requests));
  EXPECT_EQ(std::count(landed.begin(), landed.end(), unchanged), 1);
  EXPECT_EQ(std::set<std::string>(landed.begin(), landed.end()).size(), 10u) << "a name given twice";
  for (size_t i = 0; i < landed.size(); ++i) {
    EXPECT_EQ(fs::path(landed[i]).parent_path(), docs_) << landed[i];
    EXPECT_TRUE(QVReadFile(landed[i]) == contents[i]) << landed[i];
  }

  // Two at once of an original changed here since the handoff: both beside it, the original intact.
  const QVData own = QVTestBytes(700, 7);
  const std::string changed = original("Changed.bin", own);
  const QVData first = QVTestBytes(3 << 20, 8), second = QVTestBytes(2 << 20, 9);
  landed = landedPaths(perform({upload(changed, first, 699), upload(changed, second, 699)}));
  ASSERT_EQ(landed.size(), 2u);
  EXPECT_NE(landed[0], landed[1]);
  EXPECT_NE(landed[0], changed);
  EXPECT_NE(landed[1], changed);
  EXPECT_TRUE(QVReadFile(landed[0]) == first);
  EXPECT_TRUE(QVReadFile(landed[1]) == second);
  EXPECT_TRUE(QVReadFile(changed) == own);
  EXPECT_EQ(documents().size(), 13u) << "nothing but the documents in their folder";
  EXPECT_TRUE(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).empty());
}

TEST_F(SaveBackAtomicityTest, AFolderIsNeverReplacedNorReachedThroughALink) {
  const std::string folder = (docs_ / "Project").string();
  fs::create_directories(folder + "/notes");
  QVWriteFile(folder + "/notes/a.txt", {1, 2, 3});
  fs::create_directory_symlink(folder, docs_ / "Shortcut");
  const QVData body = QVTestBytes(5000, 2);
  size_t refused = 0;
  for (const std::string& target : {folder, folder + "/", (docs_ / "Shortcut").string()}) {
    EXPECT_EQ(perform({upload(target, body, 4096)}).front().status(), 0) << target;
    ++refused;
    ASSERT_TRUE(QVRunMainQueueUntil([&] {
      return notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).size() == refused;
    })) << target;
    EXPECT_EQ(notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification)
                  .back()
                  .userInfo.at(QVHandoffManagerOriginalFilePathKey),
              QVValue(target));
  }
  EXPECT_TRUE(log_.contains("Couldn't move file on save back operation. Error: ", "error"));
  EXPECT_EQ(documents(),
            (std::vector<std::string>{"Project", "Project/notes", "Project/notes/a.txt", "Shortcut"}));
  EXPECT_TRUE(QVReadFile(folder + "/notes/a.txt") == (QVData{1, 2, 3}));
  EXPECT_TRUE(notifications(QVHandoffManagerDidSaveBackRemoteDocumentNotification).empty());
}

TEST_F(SaveBackAtomicityTest, ASavedBackFileKeepsTheOriginalsModeAndAttributesAndIsNeverOpenToOthers) {
  const std::string secret = original("Secret.pdf", QVTestBytes(300, 1), 0600);
  ASSERT_TRUE(QVSetExtendedAttribute(secret, "com.example.label", {'r', 'e', 'd'}));
  const std::string shared = original("Shared.pdf", QVTestBytes(300, 2), 0640);
  const QVData edited = QVTestBytes(4000, 3);
  const auto landed = landedPaths(perform(
      {upload(secret, edited), upload(shared, edited, 1), upload((docs_ / "New.pdf").string(), edited)}));
  ASSERT_EQ(landed, (std::vector<std::string>{secret, (docs_ / "Shared 2.pdf").string(),
                                              (docs_ / "New.pdf").string()}));
  EXPECT_EQ(modeOf(secret), 0600u);
  EXPECT_EQ(QVGetExtendedAttribute(secret, "com.example.label"), (QVData{'r', 'e', 'd'}));
  EXPECT_EQ(modeOf(landed[1]), 0640u) << "the version beside the original is like it";
  EXPECT_EQ(modeOf(landed[2]), 0600u) << "a new document is the user's alone";
  for (const auto& path : landed)
    EXPECT_TRUE(QVReadFile(path) == edited) << path;

  // A host's own move block is handed a named file, private, in the original's folder.
  std::string handed;
  mode_t handedMode = 0;
  manager_->setMoveFileBlock([&](const std::string& source, const std::string& destination, QVError* error) {
    handed = source;
    handedMode = modeOf(source);
    return QVHandoffManagerDefaultMoveFileBlock(source, destination, error);
  });
  EXPECT_EQ(landedPaths(perform({upload(secret, edited)})), std::vector<std::string>{secret});
  EXPECT_EQ(fs::path(handed).parent_path(), docs_);
  EXPECT_TRUE(fs::path(handed).filename().string().starts_with(".qvhandoff-save-back-")) << handed;
  EXPECT_EQ(handedMode & 077, 0u) << "readable by others while it arrives";
  EXPECT_EQ(documents(), (std::vector<std::string>{"New.pdf", "Secret.pdf", "Shared 2.pdf", "Shared.pdf"}));
}

TEST_F(SaveBackAtomicityTest, ACutUploadLeavesNothingAndAKilledOriginsFilesGoAtTheNextStart) {
  const QVData own = QVTestBytes(4000, 1);
  const std::string path = original("Doc.pdf", own);
  const QVData body = QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(1 << 20, 2), key_).value();
  const std::string uri = uploadURI(path);
  const fs::path records = fs::path(QVHandoffPaths::stateFolder()) / "save-backs";
  // Unnamed by the default move, named by a host's block: neither survives a peer that goes away.
  for (const bool hostBlock : {false, true}) {
    if (hostBlock) {
      manager_->setMoveFileBlock(
          [](const std::string& source, const std::string& destination, QVError* error) {
            return QVHandoffManagerDefaultMoveFileBlock(source, destination, error);
          });
    }
    const size_t failures = notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).size();
    QVHangUpMidUpload(server_.port(), uri, body, 300 * 1024);
    ASSERT_TRUE(QVRunMainQueueUntil([&] {
      return notifications(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification).size() == failures + 1;
    })) << hostBlock;
    EXPECT_TRUE(leftNothingBehind());
    EXPECT_EQ(documents(), std::vector<std::string>{"Doc.pdf"}) << hostBlock;
    EXPECT_TRUE(QVReadFile(path) == own);
    EXPECT_TRUE(!fs::exists(records) || fs::is_empty(records)) << hostBlock;
  }

  // What a killed origin leaves: its named file and the record of it. A record that points at anything not
  // named like ours is dropped without touching what it points at.
  fs::create_directories(records);
  const fs::path leftover = docs_ / ".qvhandoff-save-back-0D5F";
  QVWriteFile(leftover.string(), {1});
  fs::create_symlink(leftover, records / "A");
  fs::create_symlink(path, records / "B");
  QVHandoffSaveBackReceiver::sweepLeftovers();
  EXPECT_EQ(documents(), std::vector<std::string>{"Doc.pdf"});
  EXPECT_TRUE(QVReadFile(path) == own);
  EXPECT_TRUE(fs::is_empty(records));
}

} // namespace
