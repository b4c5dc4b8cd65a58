#include "Foundation/QVMainQueue.h"
#include "Network/HTTPServer/QVHTTPAsyncFileResponse.h"
#include "Network/HTTPServer/QVHTTPConnection.h"
#include "Network/HTTPServer/QVHTTPDataResponse.h"
#include "Network/HTTPServer/QVHTTPServer.h"
#include "QVTestHTTPClient.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// What the connections of one test saw, across their threads.
struct Journal {
  std::mutex mutex;
  std::vector<std::string> calls;
  QVData body;
  std::map<std::string, std::string> params;
  void add(std::string call) {
    std::lock_guard lock(mutex);
    calls.push_back(std::move(call));
  }
  void addUnlessLast(const std::string& call) {
    std::lock_guard lock(mutex);
    if (calls.empty() || calls.back() != call) calls.push_back(call);
  }
  void clear() {
    std::lock_guard lock(mutex);
    calls.clear();
  }
  std::string last() {
    std::lock_guard lock(mutex);
    return calls.empty() ? std::string() : calls.back();
  }
  std::vector<std::string> snapshot() {
    std::lock_guard lock(mutex);
    return calls;
  }
};

// Serves "/echo" (the body back), "/params" (the query), "/file?<path>" (a file streamed chunked) and
// "/drop" (drops the connection after the first body piece).
class ProbeConnection : public QVHTTPConnection {
public:
  ProbeConnection(QVHTTPServer& server, Journal& journal) : QVHTTPConnection(server), journal_(journal) {}
  ~ProbeConnection() override { journal_.add("destroyed"); }

  bool supportsMethod(const std::string& method, const std::string& path) override {
    journal_.add("supports " + method + " " + path);
    return method == "POST" || QVHTTPConnection::supportsMethod(method, path);
  }
  bool expectsRequestBodyFromMethod(const std::string& method, const std::string& path) override {
    journal_.add("expects");
    return QVHTTPConnection::expectsRequestBodyFromMethod(method, path);
  }
  void prepareForBodyWithSize(uint64_t size) override {
    journal_.add(size == kUnknownContentLength ? "prepare unknown" : "prepare " + std::to_string(size));
    body_.clear();
  }
  void processBodyData(const uint8_t* bytes, size_t length) override {
    journal_.addUnlessLast("process");
    body_.insert(body_.end(), bytes, bytes + length);
    if (requestURI() == "/drop") disconnect();
    if (requestURI() == "/main") {
      journal_.add("waiting for main");
      performOnMainThreadSynchronouslyIfPossible([] {});
    }
  }
  void finishBody() override { journal_.add("finish"); }
  std::shared_ptr<QVHTTPResponse> httpResponseForMethod(const std::string& method,
                                                        const std::string& uri) override {
    journal_.add("response");
    {
      std::lock_guard lock(journal_.mutex);
      journal_.body = body_;
      journal_.params = parseGetParams();
    }
    if (method != "POST") return nullptr;
    if (uri.rfind("/file?", 0) == 0) {
      auto response = std::make_shared<ChunkedFileResponse>(uri.substr(6), shared_from_this());
      return response->isValid() ? response : nullptr;
    }
    return std::make_shared<QVHTTPDataResponse>(body_);
  }
  void preprocessResponse(QVHTTPHeaders& headers) override {
    journal_.add("preprocess");
    headers["X-Probe"] = "1";
  }
  void die() override { journal_.add("die"); }

private:
  struct ChunkedFileResponse : QVHTTPAsyncFileResponse {
    using QVHTTPAsyncFileResponse::QVHTTPAsyncFileResponse;
    bool isChunked() const override { return true; }
  };
  Journal& journal_;
  QVData body_;
};

class HTTPServerTest : public ::testing::Test {
protected:
  void SetUp() override {
    server_.setInterface("127.0.0.1");
    server_.setConnectionFactory(
        [this](QVHTTPServer& server) { return std::make_shared<ProbeConnection>(server, journal_); });
    QVError error;
    ASSERT_TRUE(server_.start(&error)) << error.description();
  }

  bool waitForNoConnections() {
    return QVRunMainQueueUntil([&] { return server_.numberOfHTTPConnections() == 0; });
  }

  QVHTTPServer server_;
  Journal journal_;
  QVTemporaryFolder folder_;
};

TEST_F(HTTPServerTest, CallbacksComeInOrderWithEveryBodyPiece) {
  ASSERT_TRUE(server_.isRunning());
  ASSERT_NE(server_.port(), 0);
  const QVData body = QVTestBytes(700 * 1024 + 5);

  auto sized = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo", body));
  ASSERT_TRUE(sized.completed()) << sized.curlCode;
  EXPECT_EQ(sized.status, 200);
  EXPECT_EQ(sized.body, body);
  EXPECT_EQ(sized.header("x-probe"), "1");
  ASSERT_TRUE(waitForNoConnections());
  EXPECT_EQ(
      journal_.snapshot(),
      (std::vector<std::string>{"supports POST /echo", "expects", "prepare " + std::to_string(body.size()),
                                "process", "finish", "response", "preprocess", "die", "destroyed"}));

  // Chunked upload in odd-sized pieces: the declared size is unknown, the bytes are the same.
  journal_.clear();
  auto chunked = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo", body).chunked(1021));
  ASSERT_TRUE(chunked.completed());
  EXPECT_EQ(chunked.body, body);
  ASSERT_TRUE(waitForNoConnections());
  EXPECT_EQ(journal_.snapshot().at(2), "prepare unknown");

  // An empty body still gets prepare and finish.
  journal_.clear();
  auto empty = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo"));
  EXPECT_EQ(empty.status, 200);
  EXPECT_TRUE(empty.body.empty());
  ASSERT_TRUE(waitForNoConnections());
  EXPECT_EQ(journal_.snapshot(),
            (std::vector<std::string>{"supports POST /echo", "expects", "prepare 0", "finish", "response",
                                      "preprocess", "die", "destroyed"}));
}

TEST_F(HTTPServerTest, DefaultAnswersSkipPreprocessing) {
  // A method nobody supports: 405 before any body callback.
  auto put = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::make("DELETE", "/echo"));
  EXPECT_EQ(put.status, 405);
  EXPECT_EQ(put.header("x-probe"), "");
  // Supported, but no response for it: 404.
  auto get = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::make("GET", "/echo"));
  EXPECT_EQ(get.status, 404);
  EXPECT_EQ(get.header("x-probe"), "");
  ASSERT_TRUE(waitForNoConnections());
  const auto calls = journal_.snapshot();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "preprocess"), 0);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "expects"), 1);

  // The base class alone serves nothing.
  QVHTTPServer bare;
  bare.setInterface("127.0.0.1");
  ASSERT_TRUE(bare.start(nullptr));
  EXPECT_EQ(QVTestHTTPPerform(bare.port(), QVTestHTTPRequest::post("/api/tabs_list")).status, 405);
  EXPECT_EQ(QVTestHTTPPerform(bare.port(), QVTestHTTPRequest::make("GET", "/")).status, 404);
  bare.stop();
  EXPECT_FALSE(bare.isRunning());
  EXPECT_EQ(bare.port(), 0);
  bare.stop(); // twice is harmless
}

TEST_F(HTTPServerTest, QueryIsPercentDecodedAndBadPairsAreLeftOut) {
  auto response = QVTestHTTPPerform(
      server_.port(),
      QVTestHTTPRequest::post(
          "/params?path=%2Ftmp%2Fa%20b%2Bc.pdf&size=12&plus=a+b&bad=%G1&trunc=%4&nul=x%00y&empty&size=99&"
          "&%3Dkey=v%3D"));
  ASSERT_EQ(response.status, 200);
  std::lock_guard lock(journal_.mutex);
  EXPECT_EQ(journal_.params,
            (std::map<std::string, std::string>{
                {"path", "/tmp/a b+c.pdf"}, {"size", "12"}, {"plus", "a+b"}, {"empty", ""}, {"=key", "v="}}));
}

TEST_F(HTTPServerTest, FileResponsesStreamWholeAndChunked) {
  const QVData content = QVTestBytes(3 * 1024 * 1024 + 17, 7);
  QVWriteFile(folder_.file("big"), content);
  QVWriteFile(folder_.file("empty"), {});

  // A Range header changes nothing: the whole file, 200, from its start.
  auto big = QVTestHTTPPerform(
      server_.port(), QVTestHTTPRequest::post("/file?" + folder_.file("big")).header("Range: bytes=10-"));
  ASSERT_TRUE(big.completed());
  EXPECT_EQ(big.status, 200);
  EXPECT_EQ(big.header("transfer-encoding"), "chunked");
  EXPECT_EQ(big.header("content-length"), "");
  EXPECT_TRUE(big.body == content);

  auto empty = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/file?" + folder_.file("empty")));
  EXPECT_EQ(empty.status, 200);
  EXPECT_TRUE(empty.body.empty());

  // A file that cannot be opened gives no response.
  EXPECT_EQ(
      QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/file?" + folder_.file("missing"))).status,
      404);
}

TEST_F(HTTPServerTest, DisconnectDropsTheSocketWithoutAnswer) {
  auto dropped = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/drop", QVTestBytes(64 * 1024)));
  EXPECT_FALSE(dropped.completed());
  EXPECT_EQ(dropped.status, 0);

  // A peer that goes away mid-upload: the connection dies once and no response is made.
  journal_.clear();
  auto aborted = QVTestHTTPPerform(
      server_.port(),
      QVTestHTTPRequest::post("/echo", QVTestBytes(256 * 1024)).chunked(4096).abortingAfter(100 * 1024));
  EXPECT_FALSE(aborted.completed());
  ASSERT_TRUE(waitForNoConnections());
  const auto calls = journal_.snapshot();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "die"), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "finish"), 0);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "response"), 0);
}

TEST_F(HTTPServerTest, StopWhileAConnectionWaitsForTheMainThread) {
  // The connection blocks in a main-thread call while stop() on the main thread joins it.
  std::thread client([port = server_.port()] {
    QVTestHTTPPerformHere(port, QVTestHTTPRequest::post("/main", QVTestBytes(1024)).chunked(512));
  });
  // Not running the main queue here, so the connection really is stuck when stop() starts.
  for (int i = 0; i < 1000 && journal_.last() != "waiting for main"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(journal_.last(), "waiting for main");
  server_.stop();
  client.join();
  EXPECT_EQ(server_.numberOfHTTPConnections(), 0u);
  const auto calls = journal_.snapshot();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "die"), 1);
}

TEST_F(HTTPServerTest, PerIPLimitRefusesExtraConnections) {
  server_.stop();
  QVHTTPServerLimits limits;
  limits.perIPConnectionLimit = 2;
  server_.setLimits(limits);
  ASSERT_TRUE(server_.start(nullptr));
  auto openSocket = [&] {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server_.port());
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  };
  const int first = openSocket();
  const int second = openSocket();
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return server_.numberOfHTTPConnections() == 2; }));
  const int third = openSocket();
  // The server closes the third at once: it reads as end of stream.
  pollfd ready{third, POLLIN, 0};
  ASSERT_EQ(poll(&ready, 1, 10000), 1);
  char byte;
  EXPECT_EQ(recv(third, &byte, 1, 0), 0);
  EXPECT_EQ(server_.numberOfHTTPConnections(), 2u);
  for (int fd : {first, second, third})
    close(fd);
  EXPECT_TRUE(waitForNoConnections());
}

} // namespace
