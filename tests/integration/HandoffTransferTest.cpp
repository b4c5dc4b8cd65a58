#include "Foundation/QVDateFormatting.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "QVTransferFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace {

// Answers one request with a fixed head and body, then closes: the answers the real server never gives.
class QVCannedHTTPServer {
public:
  QVCannedHTTPServer(const std::string& head, const QVData& body) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 1);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    std::string answer =
        "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
        head + "\r\n";
    answer.append(body.begin(), body.end());
    thread_ = std::thread([this, answer] {
      pollfd waiting{listener_, POLLIN, 0};
      if (poll(&waiting, 1, 10000) != 1) return;
      const int connection = accept(listener_, nullptr, nullptr);
      // The whole request first, so that closing never resets the connection under the answer.
      std::string request;
      char buffer[4096];
      for (ssize_t n; (n = read(connection, buffer, sizeof buffer)) > 0;) {
        request.append(buffer, static_cast<size_t>(n));
        const size_t end = request.find("\r\n\r\n");
        const size_t field = request.find("Content-Length: ");
        if (end != std::string::npos && field != std::string::npos &&
            request.size() >= end + 4 + std::stoul(request.substr(field + 16)))
          break;
      }
      (void)!write(connection, answer.data(), answer.size());
      close(connection);
    });
  }
  ~QVCannedHTTPServer() {
    thread_.join();
    close(listener_);
  }
  uint16_t port() const { return port_; }

private:
  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread thread_;
};

class HandoffTransferTest : public QVTransferTest {
protected:
  // The download failed once, with `code` in `domain`, and left no file in the handoff folder.
  void expectFailure(const QVTransferOutcome& outcome, int64_t code,
                     const std::string& domain = QVHandoffErrorDomain) {
    EXPECT_TRUE(outcome.completions.empty());
    ASSERT_EQ(outcome.errors.size(), 1u);
    EXPECT_EQ(outcome.errors[0].domain, domain);
    EXPECT_EQ(outcome.errors[0].code, code);
    EXPECT_TRUE(noCopies());
    EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());
  }
  bool noCopies() const {
    std::error_code missing;
    const auto files =
        std::filesystem::recursive_directory_iterator(manager_->handoffDirectoryPath(), missing);
    return std::none_of(begin(files), end(files), [](const auto& entry) { return entry.is_regular_file(); });
  }
};

TEST_F(HandoffTransferTest, DownloadsEverySizeTagsTheCopyAndNeverOverwritesOne) {
  addPeer("Studio", key_, server_.port());
  for (const size_t size : {size_t(0), size_t(1), size_t(16), size_t(5 * 1024 * 1024 + 3)}) {
    const QVData content = QVTestBytes(size, static_cast<uint32_t>(size));
    const auto local = document("Doc.pdf", content);
    const auto record = remote(*local);
    const auto outcome = handoff(record);
    EXPECT_FALSE(manager_->handoffDocumentsInfo().empty());
    ASSERT_TRUE(QVRunMainQueueUntil([&] { return outcome->ended(); })) << size;
    ASSERT_EQ(outcome->completions.size(), 1u) << size;
    const std::string path = outcome->completions[0];
    EXPECT_EQ(path, manager_->handoffDirectoryPath() + "/Studio" + local->filePath());
    EXPECT_TRUE(QVReadFile(path) == content) << size;
    EXPECT_EQ(outcome->progress.empty(), size == 0) << size;
    EXPECT_TRUE(std::is_sorted(outcome->progress.begin(), outcome->progress.end()));

    // Tagged with the origin; the date is the one "Last-Modified" announced (whole seconds).
    const auto tags = QVHandoffManager::documentInfoForFileAtPath(path);
    ASSERT_TRUE(tags);
    EXPECT_EQ(tags->filePath(), local->filePath());
    EXPECT_EQ(tags->deviceName(), "Studio");
    EXPECT_EQ(tags->fileSize(), size);
    const auto date = QVHandoffManager::latestFileModificationDateForFileAtPath(local->filePath());
    EXPECT_EQ(tags->fileModificationDate(), std::chrono::floor<std::chrono::seconds>(*date));
    EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());

    // The same document again lands beside the first copy.
    const auto again = handoff(remote(*local));
    ASSERT_TRUE(QVRunMainQueueUntil([&] { return again->ended(); }));
    ASSERT_EQ(again->completions.size(), 1u);
    EXPECT_EQ(again->completions[0], path.substr(0, path.size() - 4) + " 2.pdf");
    EXPECT_TRUE(QVReadFile(path) == content);
    std::filesystem::remove_all(manager_->handoffDirectoryPath());
  }
}

TEST_F(HandoffTransferTest, EveryFailureIsReportedOnceAndLeavesNoFile) {
  const auto local = document("Doc.pdf", QVTestBytes(5 * 1024 * 1024));
  const auto run = [&](std::function<void()> onProgress = {}) {
    const auto outcome = handoff(remote(*local), std::move(onProgress));
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return outcome->ended(); }));
    return outcome;
  };

  // No peer of that name: at once, before any file exists.
  expectFailure(*handoff(remote(*local, "Nowhere")), 0);
  EXPECT_TRUE(log_.contains("Server HTTP address is unresolved", "info"));

  // Another key: the peer cannot read the request and answers 500.
  addPeer("Studio", QVTestBytes(32, 7), server_.port());
  expectFailure(*run(), QVURLError::BadServerResponse, QVURLErrorDomain);
  EXPECT_TRUE(log_.contains("Handoff remote document request error", "error"));
  manager_->removeRemoteServerInfoForService(peers_.back());

  // A copy shorter than the size the peer announces.
  addPeer("Studio", key_, server_.port());
  manager_->setCopyFileBlock([](const std::string& source, const std::string& destination, QVError*) {
    QVData content = QVReadFile(source);
    content.pop_back();
    QVWriteFile(destination, content);
    return true;
  });
  expectFailure(*run(), 0);
  EXPECT_TRUE(log_.contains("Handoff remote document request file transfer incomplete", "error"));
  manager_->setCopyFileBlock(QVHandoffManagerDefaultCopyFileBlock);

  // The peer goes away in the middle of the body.
  expectFailure(*run([this] { server_.stop(); }), QVURLError::NetworkConnectionLost, QVURLErrorDomain);
  EXPECT_TRUE(QVReadFile(local->filePath()) == QVTestBytes(5 * 1024 * 1024));
}

TEST_F(HandoffTransferTest, AnswersWithoutSizeOrDateOrWholeCipherFail) {
  const auto local = document("Doc.pdf", QVTestBytes(1000));
  const QVData cipher = QVHandoffAES256Data::encryptWithKeyData(QVTestBytes(1000), key_).value();
  const std::string date = "Last-Modified: " + QVFormatHTTPDate(std::chrono::system_clock::now()) + "\r\n";
  const struct {
    std::string head;
    QVData body;
    const char* message;
  } cases[] = {
      {date, cipher, "failed to get new file size."},
      {date + "X-Decoded-Content-Length: abc\r\n", cipher, "failed to get new file size."},
      {date + "X-Decoded-Content-Length: 1001\r\n", cipher, "file transfer incomplete"},
      {"X-Decoded-Content-Length: 1000\r\n", cipher, "failed to get new file modification date."},
      {date + "X-Decoded-Content-Length: 1000\r\n", QVData(cipher.begin(), cipher.end() - 1),
       "decryption finish error"},
  };
  for (const auto& answer : cases) {
    QVCannedHTTPServer canned(answer.head, answer.body);
    addPeer("Studio", key_, canned.port());
    const auto outcome = handoff(remote(*local));
    ASSERT_TRUE(QVRunMainQueueUntil([&] { return outcome->ended(); }));
    expectFailure(*outcome, 0);
    EXPECT_TRUE(log_.contains(std::string("Handoff remote document request ") + answer.message, "error"));
    manager_->removeRemoteServerInfoForService(peers_.back());
    log_.clear();
  }
}

TEST_F(HandoffTransferTest, CancelIsSilentAndANewerDownloadTakesTheChunksOver) {
  addPeer("Studio", key_, server_.port());
  const QVData content = QVTestBytes(5 * 1024 * 1024);
  const auto first = document("First.pdf", content);
  const auto second = document("Second.pdf", content);

  // Cancelled from its own first progress callback, through a copy of the record.
  std::shared_ptr<QVTransferOutcome> cancelled;
  cancelled = handoff(remote(*first), [&] { manager_->cancelHandoffRemoteDocumentWithInfo(remote(*first)); });
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return !cancelled->progress.empty(); }));
  settle();
  EXPECT_FALSE(cancelled->ended());
  EXPECT_EQ(cancelled->progress.size(), 1u);
  EXPECT_TRUE(manager_->handoffDocumentsInfo().empty());
  EXPECT_TRUE(noCopies());
  EXPECT_TRUE(QVReadFile(first->filePath()) == content);
  EXPECT_TRUE(log_.contains("Cancel handoff for document", "info"));
  manager_->cancelHandoffRemoteDocumentWithInfo(remote(*first));

  // Overlapping: the older download no longer gets chunks and fails (short of bytes or of its last block).
  const auto older = handoff(remote(*first));
  const auto newer = handoff(remote(*second));
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return older->ended() && newer->ended(); }));
  ASSERT_EQ(older->errors.size(), 1u);
  EXPECT_EQ(older->errors[0], QVHandoffManager::internalError());
  ASSERT_EQ(newer->completions.size(), 1u);
  EXPECT_TRUE(QVReadFile(newer->completions[0]) == content);
  EXPECT_EQ(std::filesystem::path(newer->completions[0]).filename(), "Second.pdf");
  EXPECT_FALSE(std::filesystem::exists(manager_->handoffDirectoryPath() + "/Studio" + first->filePath()));
}

} // namespace
