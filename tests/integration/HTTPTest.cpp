// SPDX-License-Identifier: MIT
#include "Foundation/QVMainQueue.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "Network/HTTPServer/QVHTTPConnection.h"
#include "Network/HTTPServer/QVHTTPDataResponse.h"
#include "Network/HTTPServer/QVHTTPServer.h"
#include "QVTestHTTP.h"
#include "support/QVTestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using Delivery = QVURLSessionDataTask::BodyDelivery;

// Echoes the body of a POST, keeps the query, and on "/main" waits for the main thread.
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
      const bool ran = performOnMainThreadSynchronouslyUnlessReleased(
          [journal = &journal_] { journal->add("main"); }, serverStopped());
      journal_.add(ran ? "ran" : "released");
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

struct Outcome {
  std::shared_ptr<const QVHTTPURLResponse> response;
  std::optional<QVData> body;
  std::optional<QVError> error;
  int calls = 0;
  bool onMainThread = false;
};

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), ::tolower);
  return text;
}

// The library's server with probe connections, and the library's client talking to it or to raw peers.
class HTTPTest : public ::testing::Test {
protected:
  void SetUp() override {
    server_.setInterface("127.0.0.1");
    server_.setConnectionFactory(
        [this](QVHTTPServer& server) { return std::make_shared<ProbeConnection>(server, journal_); });
    ASSERT_TRUE(server_.start(nullptr));
  }
  std::string URL(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(server_.port()) + path;
  }
  // The callbacks so far; the client keeps its connections, so when one dies is not told.
  std::vector<std::string> calls() {
    auto journal = journal_.take();
    std::erase(journal, "die");
    return journal;
  }

  std::shared_ptr<QVURLSessionDataTask> task(const QVURLRequest& request, Outcome& outcome,
                                             Delivery delivery = Delivery::Buffered) {
    return session_->dataTaskWithRequest(
        request,
        [&outcome](auto response, auto body, auto error) {
          outcome = {std::move(response), std::move(body), std::move(error), outcome.calls + 1,
                     QVMainQueue::main().isMainThread()};
        },
        delivery);
  }
  Outcome perform(const QVURLRequest& request, Delivery delivery = Delivery::Buffered) {
    Outcome outcome;
    task(request, outcome, delivery)->resume();
    EXPECT_TRUE(QVRunMainQueueUntil([&] { return outcome.calls > 0; }))
        << "no completion for " << request.URL();
    return outcome;
  }
  static int64_t code(const Outcome& outcome) {
    return outcome.error && outcome.error->domain == QVURLErrorDomain ? outcome.error->code : 0;
  }

  ProbeConnection::Journal journal_; // outlives the server: connections die into it until it stops
  QVHTTPServer server_;
  std::unique_ptr<QVHTTPSessionManager> session_ = std::make_unique<QVHTTPSessionManager>();
};

} // namespace

TEST_F(HTTPTest, RequestsGoThroughTheCallbacksInOrderWithEveryPieceOfTheBody) {
  const QVData body = QVTestBytes(700 * 1024 + 5);
  QVURLRequest request(URL("/echo"), "POST");
  request.setHTTPBody(body);
  const Outcome sized = perform(request);
  ASSERT_FALSE(sized.error) << sized.error->description();
  EXPECT_TRUE(sized.body == body);
  EXPECT_EQ(sized.response->valueForHTTPHeaderField("x-probe"), "1");
  EXPECT_EQ(calls(), (std::vector<std::string>{"supports POST /echo", "expects", "prepare 716805", "process",
                                               "finish", "response", "preprocess"}));

  // A body of unknown length is pulled off the main thread in large pieces and goes out chunked. Streamed
  // back, it goes to the data callback, off the main thread and after its head, and is kept nowhere else.
  const QVData large = QVTestBytes(5 * 1024 * 1024, 7);
  size_t offset = 0, largestAsk = 0;
  std::atomic<bool> onMain = false;
  QVURLRequest streamed(URL("/echo"), "POST");
  streamed.setHTTPBodyStream([&](uint8_t* buffer, size_t capacity) {
    onMain = onMain || QVMainQueue::main().isMainThread();
    largestAsk = std::max(largestAsk, capacity);
    const size_t n = std::min(capacity, large.size() - offset);
    std::memcpy(buffer, large.data() + offset, n);
    offset += n;
    return n;
  });
  QVData chunks;
  std::string headBeforeData;
  session_->setDataTaskDidReceiveResponseBlock([&](auto&, const auto&, const QVHTTPURLResponse& response) {
    if (chunks.empty()) headBeforeData += response.valueForHTTPHeaderField("X-probe").value_or("");
  });
  session_->setDataTaskDidReceiveDataBlock([&](auto&, const auto&, std::span<const uint8_t> data) {
    onMain = onMain || QVMainQueue::main().isMainThread();
    chunks.insert(chunks.end(), data.begin(), data.end());
  });
  const Outcome chunked = perform(streamed, Delivery::Streamed);
  EXPECT_TRUE(chunked.onMainThread);
  EXPECT_FALSE(chunked.error || chunked.body);
  EXPECT_TRUE(chunks == large);
  EXPECT_EQ(headBeforeData, "1");
  EXPECT_EQ(calls().at(2), "prepare ?");
  EXPECT_GT(largestAsk, 64u * 1024) << "the upload buffer should be 1 MiB, not curl's default";
  EXPECT_FALSE(onMain);

  // A bodiless POST such as the tabs list is still prepared and finished.
  const Outcome bare = perform(QVURLRequest(URL("/echo"), "POST"));
  EXPECT_TRUE(bare.body && bare.body->empty());
  EXPECT_EQ(calls(), (std::vector<std::string>{"supports POST /echo", "expects", "prepare 0", "finish",
                                               "response", "preprocess"}));

  // The query is percent-decoded; bad pairs are left out.
  perform(QVURLRequest(URL("/params?path=%2Ftmp%2Fa%20b%2Bc.pdf&size=12&plus=a+b&bad=%G1&trunc=%4&"
                           "nul=x%00y&empty&size=99&&%3Dkey=v%3D"),
                       "POST"));
  {
    std::lock_guard lock(journal_.mutex);
    EXPECT_EQ(
        journal_.params,
        (std::map<std::string, std::string>{
            {"path", "/tmp/a b+c.pdf"}, {"size", "12"}, {"plus", "a+b"}, {"empty", ""}, {"=key", "v="}}));
  }

  // The server's own answers are not preprocessed: 405 for a method not supported, 404 for no response.
  // The client makes both errors that keep the status.
  for (const auto& [method, status] : {std::pair{"DELETE", 405}, std::pair{"GET", 404}}) {
    const Outcome refused = perform(QVURLRequest(URL("/echo"), method));
    EXPECT_EQ(code(refused), QVURLError::BadServerResponse);
    ASSERT_TRUE(refused.error && refused.response);
    EXPECT_EQ(std::get<int64_t>(refused.error->userInfo.at(QVHTTPStatusCodeErrorKey)), status);
    EXPECT_EQ(refused.response->statusCode(), status);
    EXPECT_FALSE(refused.response->valueForHTTPHeaderField("x-probe"));
  }
}

TEST_F(HTTPTest, ClientSendsTheHeadersItIsGivenToTheHostTableAddress) {
  QVRawHTTPServer peer("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 5\r\n"
                       "X-Decoded-Content-Length: 5\r\nContent-Encoding: x-quorvel-aes256\r\n\r\nabcde");
  const QVData sent = QVTestBytes(100 * 1024);
  QVURLRequest request(peer.URL("/api/handoff"), "POST");
  request.setHTTPBody(sent);
  request.setValue("application/json", "Content-Type");
  request.setValue("x-quorvel-aes256", "accept-encoding");
  request.setValue("x-quorvel-aes256", "Accept-Encoding"); // replaces, whatever the case
  const Outcome outcome = perform(request);
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  EXPECT_EQ(outcome.response->statusCode(), 200);
  EXPECT_EQ(outcome.response->valueForHTTPHeaderField("x-decoded-content-length"), "5");
  EXPECT_EQ(outcome.body, (QVData{'a', 'b', 'c', 'd', 'e'}))
      << "a body with a foreign content coding must pass through undecoded";
  std::string seen = lowercase(peer.request());
  EXPECT_NE(seen.find("\r\ncontent-type: application/json\r\n"), std::string::npos) << seen.substr(0, 300);
  EXPECT_EQ(seen.find("accept-encoding: x-quorvel-aes256"), seen.rfind("accept-encoding:"));
  EXPECT_NE(seen.find("\r\ncontent-length: 102400\r\n"), std::string::npos);
  EXPECT_EQ(seen.find("\r\nexpect:"), std::string::npos);
  EXPECT_TRUE(peer.request().ends_with(std::string(sent.begin(), sent.end())));

  // A bodiless POST such as the tabs list: no form content type made up, an empty body sent. A local
  // name reaches the address the host table gives it; a peer that moved leaves a stale one at first.
  const std::string URL = "http://peer.local:" + std::to_string(peer.port()) + "/api/tabs_list";
  QVHTTPSessionManager::setAddressForHost("peer.local", "127.0.0.2");
  EXPECT_EQ(code(perform(QVURLRequest(URL, "POST"))), QVURLError::CannotConnectToHost);
  QVHTTPSessionManager::setAddressForHost("Peer.local.", "127.0.0.1");
  EXPECT_EQ(QVHTTPSessionManager::addressForHost("peer.LOCAL"), "127.0.0.1");
  EXPECT_FALSE(perform(QVURLRequest(URL, "POST")).error);
  seen = lowercase(peer.request());
  EXPECT_NE(seen.find("\r\nhost: peer.local:" + std::to_string(peer.port()) + "\r\n"), std::string::npos);
  EXPECT_EQ(seen.find("content-type:"), std::string::npos);
  EXPECT_NE(seen.find("\r\ncontent-length: 0\r\n"), std::string::npos);
  QVHTTPSessionManager::setAddressForHost("peer.local", "");
  EXPECT_FALSE(QVHTTPSessionManager::addressForHost("peer.local"));
}

TEST_F(HTTPTest, CancelAndSessionEndCompleteWithCancelledExactlyOnce) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 10000000\r\n\r\n" + std::string(65536, 'x');
  QVRawHTTPServer fromMain(head, true), fromCallback(head, true), outstanding("", true);
  std::atomic<int> chunksFromMain = 0;
  std::atomic<bool> quickArrived = false;
  session_->setDataTaskDidReceiveDataBlock([&](auto&, const auto& task, auto) {
    const std::string& URL = task->originalRequest().URL();
    if (URL == fromMain.URL()) ++chunksFromMain;
    if (URL == fromCallback.URL()) task->cancel(); // as a download that cannot decrypt does
    if (URL == this->URL("/echo")) quickArrived = true;
  });

  Outcome mainOutcome, callbackOutcome, unresumedOutcome, lateOutcome;
  auto mainTask = task(QVURLRequest(fromMain.URL(), "POST"), mainOutcome, Delivery::Streamed);
  mainTask->resume();
  task(QVURLRequest(fromCallback.URL(), "POST"), callbackOutcome)->resume();
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return chunksFromMain > 0; }));
  mainTask->cancel();
  mainTask->cancel();

  QVURLRequest quick(URL("/echo"), "POST");
  quick.setHTTPBody({1});
  auto unresumed = task(quick, unresumedOutcome);
  unresumed->cancel();
  unresumed->resume();

  // A cancel that comes after the transfer ended but before its completion ran still wins.
  auto late = task(quick, lateOutcome);
  late->resume();
  for (int i = 0; i < 400 && !quickArrived; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  late->cancel();

  ASSERT_TRUE(QVRunMainQueueUntil([&] {
    return mainOutcome.calls && callbackOutcome.calls && unresumedOutcome.calls && lateOutcome.calls;
  }));

  // Ending the session cancels what still runs, and whatever is resumed afterwards.
  Outcome outstandingOutcome, afterEndOutcome;
  task(QVURLRequest(outstanding.URL(), "POST"), outstandingOutcome)->resume();
  auto afterEnd = task(QVURLRequest(outstanding.URL(), "POST"), afterEndOutcome);
  for (int i = 0; i < 400 && !outstanding.requests; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  session_.reset(); // joins the session's thread: every completion is on its way now
  afterEnd->resume();
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return afterEndOutcome.calls > 0; }));
  for (const Outcome* outcome : {&mainOutcome, &callbackOutcome, &unresumedOutcome, &lateOutcome,
                                 &outstandingOutcome, &afterEndOutcome}) {
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_EQ(code(*outcome), QVURLError::Cancelled);
    EXPECT_FALSE(outcome->body);
  }
  EXPECT_EQ(mainTask->state(), QVURLSessionDataTask::State::Completed);
}

// A refused connection and a body cut short are seen in the host-table and handoff tests.
TEST_F(HTTPTest, ASilentOrStalledPeerBecomesAURLError) {
  QVRawHTTPServer silent("");
  EXPECT_EQ(code(perform(QVURLRequest(silent.URL(), "POST"))), QVURLError::NetworkConnectionLost);

  QVRawHTTPServer stalled("", true);
  QVURLRequest request(stalled.URL(), "POST");
  request.setTimeoutInterval(1);
  EXPECT_EQ(code(perform(request)), QVURLError::TimedOut);
}

TEST_F(HTTPTest, StopReturnsAtOnceAndReleasesAConnectionWaitingForTheMainThread) {
  QVURLRequest request(URL("/main"), "POST");
  request.setHTTPBody(QVTestBytes(1024));
  Outcome outcome;
  task(request, outcome)->resume();
  const auto journalHas = [&](const std::string& call) {
    std::lock_guard lock(journal_.mutex);
    return std::find(journal_.calls.begin(), journal_.calls.end(), call) != journal_.calls.end();
  };
  // The main queue is not run here, so the connection really is stuck when stop() is called.
  const auto waitFor = [](const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
  };
  ASSERT_TRUE(waitFor([&] { return journalHas("waiting"); }));
  server_.stop();
  EXPECT_FALSE(server_.isRunning());
  // Released and closed in the background, still without the main thread.
  EXPECT_TRUE(waitFor([&] { return server_.numberOfHTTPConnections() == 0 && journalHas("die"); }));
  EXPECT_TRUE(journalHas("released"));
  EXPECT_FALSE(journalHas("main"));
  // A new start does not wait for anything either.
  ASSERT_TRUE(server_.start(nullptr));
  EXPECT_TRUE(server_.isRunning());

  // The released task still runs, on the main thread, and the client hears of its request.
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return outcome.calls > 0 && journalHas("main"); }));
  const auto journal = journal_.take();
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "waiting"), 1);
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "ran"), 0);
}
