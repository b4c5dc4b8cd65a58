#include "Foundation/QVMainQueue.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

namespace {

using Delivery = QVURLSessionDataTask::BodyDelivery;

struct Exchange {
  QVHTTPHeaderFields headers;
  QVData body;
};

struct Reply {
  unsigned status = 200;
  std::map<std::string, std::string> headers;
  QVData body;
};

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// A socket on 127.0.0.1 at a free port; one that does not listen refuses connections.
uint16_t bindLoopback(Fd& socket_, bool listening) {
  socket_.fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  bind(socket_.fd, reinterpret_cast<sockaddr*>(&address), length);
  if (listening) listen(socket_.fd, 4);
  getsockname(socket_.fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// A real HTTP server on 127.0.0.1 that records each request and answers it with `handler`.
class LoopbackServer {
public:
  explicit LoopbackServer(std::function<Reply(const Exchange&)> handler) : handler_(std::move(handler)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    daemon_.reset(MHD_start_daemon(MHD_USE_AUTO_INTERNAL_THREAD, 0, nullptr, nullptr, &answer, this,
                                   MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_END));
    port = daemon_ ? MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_BIND_PORT)->port : 0;
  }
  std::string URL(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
  Exchange last() {
    std::lock_guard lock(mutex_);
    return last_;
  }
  uint16_t port;

private:
  static MHD_Result answer(void* cls, MHD_Connection* connection, const char*, const char*, const char*,
                           const char* upload, size_t* uploadSize, void** state) {
    auto& server = *static_cast<LoopbackServer*>(cls);
    std::unique_lock lock(server.mutex_);
    Exchange& exchange = server.inFlight_[connection];
    if (!*state) {
      *state = &server;
      exchange = {};
      MHD_get_connection_values(
          connection, MHD_HEADER_KIND,
          [](void* headers, MHD_ValueKind, const char* key, const char* value) {
            static_cast<QVHTTPHeaderFields*>(headers)->emplace(key, value ? value : "");
            return MHD_YES;
          },
          &exchange.headers);
    } else if (*uploadSize) {
      exchange.body.insert(exchange.body.end(), upload, upload + *uploadSize);
      *uploadSize = 0;
    } else {
      server.last_ = exchange;
      lock.unlock();
      const Reply reply = server.handler_(exchange);
      MHD_Response* response = MHD_create_response_from_buffer(
          reply.body.size(), const_cast<uint8_t*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
      for (const auto& [name, value] : reply.headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
      const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
      MHD_destroy_response(response);
      return queued;
    }
    return MHD_YES;
  }

  std::function<Reply(const Exchange&)> handler_;
  std::mutex mutex_;
  std::map<MHD_Connection*, Exchange> inFlight_;
  Exchange last_;
  std::unique_ptr<MHD_Daemon, decltype(&MHD_stop_daemon)> daemon_{nullptr, &MHD_stop_daemon};
};

// A misbehaving peer: takes one connection, reads the request head, writes `reply` raw, then hangs up
// or, with `hold`, stays silent until the client leaves. Every wait ends after 30 s.
class RawServer {
public:
  RawServer(std::string reply, bool hold) : port_(bindLoopback(listener_, true)) {
    thread_ = std::thread([this, reply = std::move(reply), hold] {
      if (!readable(listener_.fd)) return;
      Fd connection{accept(listener_.fd, nullptr, nullptr)};
      std::string head;
      char buffer[4096];
      while (head.find("\r\n\r\n") == std::string::npos && readable(connection.fd)) {
        const ssize_t received = recv(connection.fd, buffer, sizeof buffer, 0);
        if (received <= 0) return;
        head.append(buffer, static_cast<size_t>(received));
      }
      requestRead = true;
      if (send(connection.fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0 || !hold) return;
      while (readable(connection.fd) && recv(connection.fd, buffer, sizeof buffer, 0) > 0) {
      }
    });
  }
  ~RawServer() {
    stop_ = true;
    thread_.join();
  }
  std::string URL() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  std::atomic<bool> requestRead = false;

private:
  bool readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    for (int i = 0; i < 300 && !stop_; ++i) {
      if (poll(&entry, 1, 100) > 0) return true;
    }
    return false;
  }

  Fd listener_;
  const uint16_t port_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

struct Outcome {
  std::shared_ptr<const QVHTTPURLResponse> response;
  std::optional<QVData> body;
  std::optional<QVError> error;
  int calls = 0;
  bool onMainThread = false;
};

class HTTPClientTest : public ::testing::Test {
protected:
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

  std::unique_ptr<QVHTTPSessionManager> session_ = std::make_unique<QVHTTPSessionManager>();
};

} // namespace

TEST_F(HTTPClientTest, PostsBytesAndReadsTheResponseHead) {
  LoopbackServer server([](const Exchange& exchange) {
    return Reply{200,
                 {{"X-Decoded-Content-Length", std::to_string(exchange.body.size())},
                  {"Content-Encoding", "x-quorvel-aes256"}},
                 exchange.body};
  });
  const QVData sent = QVTestBytes(100 * 1024);
  QVURLRequest request(server.URL("/api/handoff"), "POST");
  request.setHTTPBody(sent);
  request.setValue("application/json", "Content-Type");
  request.setValue("x-quorvel-aes256", "accept-encoding");
  request.setValue("x-quorvel-aes256", "Accept-Encoding"); // replaces, whatever the case

  const Outcome outcome = perform(request);
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  ASSERT_TRUE(outcome.response && outcome.body);
  EXPECT_EQ(outcome.response->statusCode(), 200);
  EXPECT_EQ(outcome.response->valueForHTTPHeaderField("x-decoded-content-length"), "102400");
  EXPECT_EQ(*outcome.body, sent) << "a body with a foreign content coding must pass through undecoded";
  Exchange seen = server.last();
  EXPECT_EQ(seen.headers["Content-Type"], "application/json");
  EXPECT_EQ(seen.headers["Accept-Encoding"], "x-quorvel-aes256");
  EXPECT_EQ(seen.headers["Content-Length"], "102400");
  EXPECT_FALSE(seen.headers.count("Expect"));

  // A bodiless POST such as the tabs list: no form content type made up, an empty body sent.
  const Outcome bare = perform(QVURLRequest(server.URL("/api/tabs_list"), "POST"));
  EXPECT_FALSE(bare.error);
  seen = server.last();
  EXPECT_FALSE(seen.headers.count("Content-Type"));
  EXPECT_EQ(seen.headers["Content-Length"], "0");
  EXPECT_TRUE(bare.body && bare.body->empty());
}

TEST_F(HTTPClientTest, PullsABodyOfUnknownLengthAndSendsItChunked) {
  LoopbackServer server([](const Exchange&) { return Reply{}; });
  const QVData sent = QVTestBytes(5 * 1024 * 1024, 7);
  size_t offset = 0, largestAsk = 0;
  std::atomic<bool> readOnMain = false;
  QVURLRequest request(server.URL("/api/save_back?path=/a"), "POST");
  request.setHTTPBodyStream([&](uint8_t* buffer, size_t capacity) {
    readOnMain = readOnMain || QVMainQueue::main().isMainThread();
    largestAsk = std::max(largestAsk, capacity);
    const size_t n = std::min(capacity, sent.size() - offset);
    std::memcpy(buffer, sent.data() + offset, n);
    offset += n;
    return n;
  });

  const Outcome outcome = perform(request);
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  Exchange seen = server.last();
  EXPECT_EQ(seen.headers["Transfer-Encoding"], "chunked");
  EXPECT_FALSE(seen.headers.count("Content-Length") || seen.headers.count("Expect"));
  EXPECT_TRUE(seen.body == sent) << "received " << seen.body.size() << " of " << sent.size() << " bytes";
  EXPECT_GT(largestAsk, 64u * 1024) << "the upload buffer should be 1 MiB, not curl's default";
  EXPECT_FALSE(readOnMain);
}

TEST_F(HTTPClientTest, DataCallbackSeesEveryChunkInOrderOffTheMainThread) {
  const QVData document = QVTestBytes(3 * 1024 * 1024, 3);
  LoopbackServer server([&](const Exchange& exchange) {
    const bool download = exchange.body.empty();
    return Reply{200, {{"X-Decoded-Content-Length", "3145728"}}, download ? document : QVData{1, 2, 3}};
  });
  std::mutex mutex;
  std::map<uint64_t, QVData> chunks;
  std::string headBeforeData; // what the download's response said before its data began
  std::atomic<bool> callbackOnMain = false;
  session_->setDataTaskDidReceiveResponseBlock(
      [&](auto&, const auto& task, const QVHTTPURLResponse& response) {
        std::lock_guard lock(mutex);
        if (!chunks.count(task->taskIdentifier()))
          headBeforeData += *response.valueForHTTPHeaderField("X-decoded-content-length");
      });
  session_->setDataTaskDidReceiveDataBlock([&](auto&, const auto& task, std::span<const uint8_t> data) {
    callbackOnMain = callbackOnMain || QVMainQueue::main().isMainThread();
    std::lock_guard lock(mutex);
    chunks[task->taskIdentifier()].insert(chunks[task->taskIdentifier()].end(), data.begin(), data.end());
  });

  Outcome streamed, buffered;
  QVURLRequest small(server.URL("/api/tabs_list"), "POST");
  small.setHTTPBody({9});
  auto download = task(QVURLRequest(server.URL("/api/handoff"), "POST"), streamed, Delivery::Streamed);
  auto tabsList = task(small, buffered);
  download->resume();
  tabsList->resume();
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return streamed.calls && buffered.calls; }));

  EXPECT_TRUE(streamed.onMainThread && buffered.onMainThread);
  EXPECT_FALSE(callbackOnMain);
  EXPECT_FALSE(streamed.error || buffered.error);
  EXPECT_FALSE(streamed.body) << "a streamed task keeps no body";
  EXPECT_EQ(buffered.body, (QVData{1, 2, 3}));
  std::lock_guard lock(mutex);
  EXPECT_TRUE(chunks[download->taskIdentifier()] == document);
  EXPECT_EQ(chunks[tabsList->taskIdentifier()], (QVData{1, 2, 3}));
  EXPECT_EQ(headBeforeData, "31457283145728") << "each response head comes before its data";
  EXPECT_EQ(download->state(), QVURLSessionDataTask::State::Completed);
}

TEST_F(HTTPClientTest, CancelAndSessionEndCompleteWithCancelledExactlyOnce) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 10000000\r\n\r\n" + std::string(65536, 'x');
  RawServer fromMain(head, true), fromCallback(head, true), outstanding("", true);
  LoopbackServer quick([](const Exchange&) { return Reply{200, {}, {1}}; });
  std::atomic<int> chunksFromMain = 0;
  std::atomic<bool> quickArrived = false;
  session_->setDataTaskDidReceiveDataBlock([&](auto&, const auto& task, auto) {
    const std::string& URL = task->originalRequest().URL();
    if (URL == fromMain.URL()) ++chunksFromMain;
    if (URL == fromCallback.URL()) task->cancel(); // as a download that cannot decrypt does
    if (URL == quick.URL("/")) quickArrived = true;
  });

  Outcome mainOutcome, callbackOutcome, unresumedOutcome, lateOutcome;
  auto mainTask = task(QVURLRequest(fromMain.URL(), "POST"), mainOutcome, Delivery::Streamed);
  mainTask->resume();
  task(QVURLRequest(fromCallback.URL(), "POST"), callbackOutcome)->resume();
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return chunksFromMain > 0; }));
  mainTask->cancel();
  mainTask->cancel();

  auto unresumed = task(QVURLRequest(quick.URL("/"), "POST"), unresumedOutcome);
  unresumed->cancel();
  unresumed->resume();

  // A cancel that comes after the transfer ended but before its completion ran still wins.
  auto late = task(QVURLRequest(quick.URL("/"), "POST"), lateOutcome);
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
  for (int i = 0; i < 400 && !outstanding.requestRead; ++i)
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

TEST_F(HTTPClientTest, FailuresBecomeURLErrors) {
  LoopbackServer failing([](const Exchange&) { return Reply{500, {}, {}}; });
  const Outcome status = perform(QVURLRequest(failing.URL("/api/handoff"), "POST"));
  EXPECT_EQ(code(status), QVURLError::BadServerResponse);
  ASSERT_TRUE(status.error && status.response);
  EXPECT_EQ(std::get<int64_t>(status.error->userInfo.at(QVHTTPStatusCodeErrorKey)), 500);
  EXPECT_EQ(status.response->statusCode(), 500);

  Fd closed;
  const uint16_t closedPort = bindLoopback(closed, false);
  EXPECT_EQ(code(perform(QVURLRequest("http://127.0.0.1:" + std::to_string(closedPort) + "/", "POST"))),
            QVURLError::CannotConnectToHost);

  RawServer midBody("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(100, 'x'), false);
  EXPECT_EQ(code(perform(QVURLRequest(midBody.URL(), "POST"))), QVURLError::NetworkConnectionLost);
  RawServer silent("", false);
  EXPECT_EQ(code(perform(QVURLRequest(silent.URL(), "POST"))), QVURLError::NetworkConnectionLost);

  RawServer stalled("", true);
  QVURLRequest request(stalled.URL(), "POST");
  request.setTimeoutInterval(1);
  EXPECT_EQ(code(perform(request)), QVURLError::TimedOut);
}

TEST_F(HTTPClientTest, HostTableMakesLocalNamesReachable) {
  LoopbackServer server([](const Exchange&) { return Reply{200, {}, {4, 2}}; });
  const std::string URL = "http://peer.local:" + std::to_string(server.port) + "/api/tabs_list";
  // The server listens on 127.0.0.1 only: a peer that moved leaves a stale address behind at first.
  QVHTTPSessionManager::setAddressForHost("peer.local", "127.0.0.2");
  EXPECT_EQ(code(perform(QVURLRequest(URL, "POST"))), QVURLError::CannotConnectToHost);
  QVHTTPSessionManager::setAddressForHost("Peer.local.", "127.0.0.1");
  EXPECT_EQ(QVHTTPSessionManager::addressForHost("peer.LOCAL"), "127.0.0.1");

  const Outcome outcome = perform(QVURLRequest(URL, "POST"));
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  EXPECT_EQ(outcome.body, (QVData{4, 2}));
  EXPECT_EQ(server.last().headers["Host"], "peer.local:" + std::to_string(server.port));

  QVHTTPSessionManager::setAddressForHost("peer.local", "");
  EXPECT_FALSE(QVHTTPSessionManager::addressForHost("peer.local"));
}
