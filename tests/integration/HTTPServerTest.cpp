#include "Foundation/QVMainQueue.h"
#include "Network/HTTPServer/QVHTTPConnection.h"
#include "Network/HTTPServer/QVHTTPDataResponse.h"
#include "Network/HTTPServer/QVHTTPServer.h"
#include "QVTestHTTPClient.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace {

// Echoes the body of "/echo", keeps the query of "/params", and on "/main" waits for the main thread.
class ProbeConnection : public QVHTTPConnection {
public:
  struct Journal {
    std::mutex mutex;
    std::vector<std::string> calls;
    std::map<std::string, std::string> params;
    void add(const std::string& call) {
      std::lock_guard lock(mutex);
      if (call != "process" || calls.empty() || calls.back() != call) calls.push_back(call);
    }
    std::vector<std::string> take() {
      std::lock_guard lock(mutex);
      return std::exchange(calls, {});
    }
  };

  ProbeConnection(QVHTTPServer& server, Journal& journal) : QVHTTPConnection(server), journal_(journal) {}

  bool supportsMethod(const std::string& method, const std::string& path) override {
    journal_.add("supports " + method + " " + path);
    return method == "POST" || QVHTTPConnection::supportsMethod(method, path);
  }
  bool expectsRequestBodyFromMethod(const std::string& method, const std::string& path) override {
    journal_.add("expects");
    return QVHTTPConnection::expectsRequestBodyFromMethod(method, path);
  }
  void prepareForBodyWithSize(uint64_t size) override {
    journal_.add(size == kUnknownContentLength ? "prepare ?" : "prepare " + std::to_string(size));
  }
  void processBodyData(const uint8_t* bytes, size_t length) override {
    journal_.add("process");
    body_.insert(body_.end(), bytes, bytes + length);
    if (requestURI() == "/main") {
      journal_.add("waiting");
      performOnMainThreadSynchronouslyIfPossible([] {});
    }
  }
  void finishBody() override { journal_.add("finish"); }
  std::shared_ptr<QVHTTPResponse> httpResponseForMethod(const std::string& method,
                                                        const std::string&) override {
    journal_.add("response");
    std::lock_guard lock(journal_.mutex);
    journal_.params = parseGetParams();
    return method == "POST" ? std::make_shared<QVHTTPDataResponse>(std::exchange(body_, {})) : nullptr;
  }
  void preprocessResponse(QVHTTPHeaders& headers) override {
    journal_.add("preprocess");
    headers["X-Probe"] = "1";
  }
  void die() override { journal_.add("die"); }

private:
  Journal& journal_;
  QVData body_;
};

class HTTPServerTest : public ::testing::Test {
protected:
  void SetUp() override {
    server_.setInterface("127.0.0.1");
    server_.setConnectionFactory(
        [this](QVHTTPServer& server) { return std::make_shared<ProbeConnection>(server, journal_); });
    ASSERT_TRUE(server_.start(nullptr));
  }
  std::vector<std::string> callsOnceClosed() {
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return server_.numberOfHTTPConnections() == 0; }));
    return journal_.take();
  }

  ProbeConnection::Journal journal_; // outlives the server: connections die into it until it stops
  QVHTTPServer server_;
};

TEST_F(HTTPServerTest, CallbacksComeInOrderWithEveryPieceOfTheBody) {
  const QVData body = QVTestBytes(700 * 1024 + 5);
  auto sized = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo", body));
  EXPECT_EQ(sized.status, 200);
  EXPECT_TRUE(sized.body == body);
  EXPECT_EQ(sized.header("x-probe"), "1");
  const std::vector<std::string> expected = {
      "supports POST /echo", "expects", "prepare 716805", "process", "finish", "response",
      "preprocess",          "die"};
  EXPECT_EQ(callsOnceClosed(), expected);

  // Sent chunked in odd pieces: size unknown up front, same bytes.
  auto chunked = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo", body).chunked(1021));
  EXPECT_TRUE(chunked.body == body);
  EXPECT_EQ(callsOnceClosed().at(2), "prepare ?");
  // An empty body is still prepared and finished.
  EXPECT_EQ(QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo")).status, 200);
  EXPECT_EQ(callsOnceClosed(), (std::vector<std::string>{"supports POST /echo", "expects", "prepare 0",
                                                         "finish", "response", "preprocess", "die"}));

  // The server's own answers are not preprocessed: 405 for a method not supported, 404 for no response.
  auto refused = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo").withMethod("DELETE"));
  auto missing = QVTestHTTPPerform(server_.port(), QVTestHTTPRequest::post("/echo").withMethod("GET"));
  EXPECT_EQ(refused.status, 405);
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(refused.header("x-probe") + missing.header("x-probe"), "");
}

TEST_F(HTTPServerTest, QueryIsPercentDecodedAndBadPairsAreLeftOut) {
  QVTestHTTPPerform(
      server_.port(),
      QVTestHTTPRequest::post("/params?path=%2Ftmp%2Fa%20b%2Bc.pdf&size=12&plus=a+b&bad=%G1&trunc=%4&"
                              "nul=x%00y&empty&size=99&&%3Dkey=v%3D"));
  std::lock_guard lock(journal_.mutex);
  EXPECT_EQ(journal_.params,
            (std::map<std::string, std::string>{
                {"path", "/tmp/a b+c.pdf"}, {"size", "12"}, {"plus", "a+b"}, {"empty", ""}, {"=key", "v="}}));
}

TEST_F(HTTPServerTest, StopDoesNotDeadlockOnAConnectionWaitingForTheMainThread) {
  std::thread client([port = server_.port()] {
    QVTestHTTPPerformHere(port, QVTestHTTPRequest::post("/main", QVTestBytes(1024)));
  });
  // The main queue is not run here, so the connection really is stuck when stop() starts.
  for (int i = 0; i < 1000; ++i) {
    std::lock_guard lock(journal_.mutex);
    if (!journal_.calls.empty() && journal_.calls.back() == "waiting") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  server_.stop();
  client.join();
  EXPECT_FALSE(server_.isRunning());
  EXPECT_EQ(server_.numberOfHTTPConnections(), 0u);
  const auto calls = journal_.take();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "waiting"), 1);
  EXPECT_EQ(calls.back(), "die");
}

} // namespace
