// SPDX-License-Identifier: MIT
#include "Network/HTTPClient/QVHTTPSessionManager.h"

#include "Foundation/QVCFree.h"
#include "Foundation/QVReadAhead.h"
#include "Network/DNSSD/QVDNSSDHostRegistry.h"

#include "Foundation/QVLog.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "Network/HTTPClient/QVURLRequest.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

QV_LOG_SOURCE("HTTPClient/QVHTTPSessionManager")

namespace {

using QVCurlEasy = std::unique_ptr<CURL, QVCFree<&curl_easy_cleanup>>;
using QVCurlMulti = std::unique_ptr<CURLM, QVCFree<&curl_multi_cleanup>>;
using QVCurlSlist = std::unique_ptr<curl_slist, QVCFree<&curl_slist_free_all>>;
using QVCurlURL = std::unique_ptr<CURLU, QVCFree<&curl_url_cleanup>>;
using QVCurlString = std::unique_ptr<char, QVCFree<&curl_free>>;

using Clock = std::chrono::steady_clock;

// A streamed download comes in in slices this large (curl's default is 16 KiB): each slice costs a wakeup
// and a cipher call, and larger ones gain no speed and only cost memory. Small answers keep the default.
constexpr long kStreamedDownloadBufferSize = 128 * 1024;
// A buffered answer (a tabs list, a save-back answer) is small; one larger is refused rather than gathered,
// so a peer cannot fill this process's memory. Documents are streamed and have no such bound.
constexpr size_t kBufferedBodyLimit = 1024 * 1024;
// A streamed upload is read and encrypted on a thread of its own, up to two chunks ahead of curl, which
// sends one chunk per call from a buffer of its own. Fewer, larger sends leave more of the machine to the
// cipher, which is what bounds an upload (curl's default buffer is 64 KiB).
constexpr size_t kUploadChunkSize = 128 * 1024;
constexpr size_t kUploadChunksAhead = 2;
constexpr long kUploadBufferSize = kUploadChunkSize;
// The longest the thread sleeps between looks at its transfers; inactivity is measured at this grain.
constexpr int kPollMilliseconds = 250;

// Well-known transport codes beyond those the framework names.
constexpr int64_t kUnknownErrorCode = -1;
constexpr int64_t kBadURLErrorCode = -1000;
constexpr int64_t kUnsupportedURLErrorCode = -1002;
constexpr int64_t kDataLengthExceedsMaximumErrorCode = -1103;

QVError URLError(int64_t code, QVUserInfo userInfo = {}) {
  return QVError{QVURLErrorDomain, code, std::move(userInfo)};
}

int64_t URLErrorCodeForResult(CURLcode result) {
  switch (result) {
  case CURLE_COULDNT_RESOLVE_HOST:
  case CURLE_COULDNT_RESOLVE_PROXY:
    return QVURLError::CannotFindHost;
  case CURLE_COULDNT_CONNECT:
    return QVURLError::CannotConnectToHost;
  case CURLE_OPERATION_TIMEDOUT:
    return QVURLError::TimedOut;
  case CURLE_GOT_NOTHING:
  case CURLE_PARTIAL_FILE:
  case CURLE_RECV_ERROR:
  case CURLE_SEND_ERROR:
    return QVURLError::NetworkConnectionLost;
  case CURLE_WEIRD_SERVER_REPLY:
    return QVURLError::BadServerResponse;
  case CURLE_URL_MALFORMAT:
    return kBadURLErrorCode;
  case CURLE_UNSUPPORTED_PROTOCOL:
    return kUnsupportedURLErrorCode;
  default:
    return kUnknownErrorCode;
  }
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
    text.remove_suffix(1);
  return text;
}

// The CURLOPT_RESOLVE line for the URL's host: its address in the host table, or else the removal of any
// address that an earlier transfer left in the session's DNS cache, so that a removed entry stops applying.
std::optional<std::string> resolveEntryForURL(const std::string& URL) {
  QVCurlURL url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, URL.c_str(), 0) != CURLUE_OK) return std::nullopt;
  char* host = nullptr;
  char* port = nullptr;
  const bool parsed = curl_url_get(url.get(), CURLUPART_HOST, &host, 0) == CURLUE_OK &&
                      curl_url_get(url.get(), CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK;
  const QVCurlString hostText(host);
  const QVCurlString portText(port);
  if (!parsed) return std::nullopt;
  const std::string hostAndPort = std::string(hostText.get()) + ":" + portText.get();
  const auto address = QVHTTPSessionManager::addressForHost(hostText.get());
  if (!address) return "-" + hostAndPort;
  const bool IPv6 = address->find(':') != std::string::npos && address->front() != '[';
  return hostAndPort + ":" + (IPv6 ? "[" + *address + "]" : *address);
}

} // namespace

// The session's thread and everything it owns. Transfers and the multi handle are touched only by that
// thread; the pending list, the callback slots and the stop flag are shared under the mutex.
class QVHTTPSessionEngine final : public QVURLSessionDataTask::Scheduler,
                                  public std::enable_shared_from_this<QVHTTPSessionEngine> {
public:
  explicit QVHTTPSessionEngine(QVHTTPSessionManager& session) : session_(session) {}
  ~QVHTTPSessionEngine() override = default;

  void start();
  void shutdown();
  uint64_t nextTaskIdentifier() { return ++lastTaskIdentifier_; }

  void scheduleTask(std::shared_ptr<QVURLSessionDataTask> task) override;
  void taskWasCancelled() override { wake(); }

  void setDataBlock(QVHTTPSessionManager::DataTaskDidReceiveDataBlock block);
  void setResponseBlock(QVHTTPSessionManager::DataTaskDidReceiveResponseBlock block);

private:
  struct Transfer {
    QVHTTPSessionEngine* engine = nullptr;
    std::shared_ptr<QVURLSessionDataTask> task;
    // The lists must outlive the easy handle that points at them, so they are declared before it.
    QVCurlSlist headerList;
    QVCurlSlist resolveList;
    QVCurlEasy easy;
    char errorText[CURL_ERROR_SIZE] = {};

    long statusCode = 0;
    QVHTTPHeaderFields headerFields;
    std::string lastHeaderName;
    std::shared_ptr<const QVHTTPURLResponse> response;
    QVData body;

    Clock::duration timeout{};
    Clock::time_point lastActivity;
    curl_off_t lastDownloaded = 0;
    curl_off_t lastUploaded = 0;
    bool timedOut = false;
    bool bodyTooLarge = false;
    // A body stream is pulled a slice ahead on a thread of its own; it goes before the task that holds the
    // stream.
    std::unique_ptr<QVReadAhead> bodyAhead;
  };

  void run();
  void wake();
  bool stopping() const { return stopping_.load(std::memory_order_relaxed); }
  void startTransfer(std::shared_ptr<QVURLSessionDataTask> task);
  std::unique_ptr<Transfer> makeTransfer(const std::shared_ptr<QVURLSessionDataTask>& task);
  bool configure(Transfer& transfer);
  void finishCancelledTransfers();
  void finishDoneTransfers();
  void finishTransfer(CURL* easy, std::optional<CURLcode> result);
  // False when the response callback threw: the transfer is then aborted.
  bool completeResponseHead(Transfer& transfer);

  static size_t onHeader(char* buffer, size_t size, size_t count, void* userdata);
  static size_t onWrite(char* buffer, size_t size, size_t count, void* userdata);
  static size_t onRead(char* buffer, size_t size, size_t count, void* userdata);
  static int onProgress(void* userdata, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded);

  QVHTTPSessionManager& session_;
  std::atomic<uint64_t> lastTaskIdentifier_ = 0;
  QVCurlMulti multi_;
  std::thread thread_;
  std::atomic<bool> stopping_ = false;

  std::mutex mutex_;
  std::vector<std::shared_ptr<QVURLSessionDataTask>> pending_;
  std::shared_ptr<const QVHTTPSessionManager::DataTaskDidReceiveDataBlock> dataBlock_;
  std::shared_ptr<const QVHTTPSessionManager::DataTaskDidReceiveResponseBlock> responseBlock_;

  std::map<CURL*, std::unique_ptr<Transfer>> transfers_;
};

void QVHTTPSessionEngine::start() {
  static std::once_flag globalInit;
  std::call_once(globalInit, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) QV_LOG_ERROR("Couldn't initialize libcurl");
  });
  multi_.reset(curl_multi_init());
  if (!multi_) {
    QV_LOG_ERROR("Couldn't create HTTP session");
    return;
  }
  try {
    // The thread keeps the engine alive until it has finished every transfer.
    thread_ = std::thread([self = shared_from_this()] { self->run(); });
  } catch (const std::system_error& error) {
    QV_LOG_ERROR("Couldn't start HTTP session thread ({})", error.what());
    multi_.reset();
  }
}

void QVHTTPSessionEngine::shutdown() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake();
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    QV_LOG_ERROR("HTTP session destroyed on its own thread");
    thread_.detach();
    return;
  }
  thread_.join();
}

void QVHTTPSessionEngine::wake() {
  if (multi_) curl_multi_wakeup(multi_.get());
}

void QVHTTPSessionEngine::scheduleTask(std::shared_ptr<QVURLSessionDataTask> task) {
  {
    std::lock_guard lock(mutex_);
    if (!stopping_ && multi_) {
      pending_.push_back(std::move(task));
      wake();
      return;
    }
  }
  // An ended session cancels; one that never got going fails.
  task->finish(nullptr, std::nullopt, URLError(stopping() ? QVURLError::Cancelled : kUnknownErrorCode));
}

void QVHTTPSessionEngine::setDataBlock(QVHTTPSessionManager::DataTaskDidReceiveDataBlock block) {
  auto shared =
      block ? std::make_shared<const QVHTTPSessionManager::DataTaskDidReceiveDataBlock>(std::move(block))
            : nullptr;
  std::lock_guard lock(mutex_);
  dataBlock_ = std::move(shared);
}

void QVHTTPSessionEngine::setResponseBlock(QVHTTPSessionManager::DataTaskDidReceiveResponseBlock block) {
  auto shared =
      block ? std::make_shared<const QVHTTPSessionManager::DataTaskDidReceiveResponseBlock>(std::move(block))
            : nullptr;
  std::lock_guard lock(mutex_);
  responseBlock_ = std::move(shared);
}

void QVHTTPSessionEngine::run() {
  while (true) {
    std::vector<std::shared_ptr<QVURLSessionDataTask>> arrived;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      arrived.swap(pending_);
    }
    for (auto& task : arrived)
      startTransfer(std::move(task));
    finishCancelledTransfers();
    int running = 0;
    const CURLMcode performed = curl_multi_perform(multi_.get(), &running);
    if (performed != CURLM_OK)
      QV_LOG_ERROR("Couldn't drive HTTP transfers ({})", curl_multi_strerror(performed));
    finishDoneTransfers();
    const CURLMcode polled = curl_multi_poll(multi_.get(), nullptr, 0, kPollMilliseconds, nullptr);
    if (polled != CURLM_OK) {
      QV_LOG_ERROR("Couldn't wait for HTTP transfers ({})", curl_multi_strerror(polled));
      std::this_thread::sleep_for(std::chrono::milliseconds(kPollMilliseconds));
    }
  }
  // Ending the session ends its tasks: nothing is left to report them later.
  while (!transfers_.empty())
    finishTransfer(transfers_.begin()->first, std::nullopt);
  std::vector<std::shared_ptr<QVURLSessionDataTask>> unstarted;
  {
    std::lock_guard lock(mutex_);
    unstarted.swap(pending_);
  }
  for (auto& task : unstarted)
    task->finish(nullptr, std::nullopt, URLError(QVURLError::Cancelled));
}

void QVHTTPSessionEngine::startTransfer(std::shared_ptr<QVURLSessionDataTask> task) {
  if (task->isCancelled()) {
    task->finish(nullptr, std::nullopt, URLError(QVURLError::Cancelled));
    return;
  }
  auto transfer = makeTransfer(task);
  if (!transfer) {
    task->finish(nullptr, std::nullopt, URLError(kUnknownErrorCode));
    return;
  }
  CURL* easy = transfer->easy.get();
  const CURLMcode added = curl_multi_add_handle(multi_.get(), easy);
  if (added != CURLM_OK) {
    QV_LOG_ERROR("Couldn't start HTTP transfer ({})", curl_multi_strerror(added));
    task->finish(nullptr, std::nullopt, URLError(kUnknownErrorCode));
    return;
  }
  transfers_.emplace(easy, std::move(transfer));
}

std::unique_ptr<QVHTTPSessionEngine::Transfer>
QVHTTPSessionEngine::makeTransfer(const std::shared_ptr<QVURLSessionDataTask>& task) {
  auto transfer = std::make_unique<Transfer>();
  transfer->engine = this;
  transfer->task = task;
  transfer->easy.reset(curl_easy_init());
  const double seconds = task->originalRequest().timeoutInterval();
  transfer->timeout = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(seconds > 0 ? seconds : QVURLRequest::defaultTimeoutInterval));
  transfer->lastActivity = Clock::now();
  if (!transfer->easy || !configure(*transfer)) {
    QV_LOG_ERROR("Couldn't set up HTTP request to {}", task->originalRequest().URL());
    return nullptr;
  }
  return transfer;
}

bool QVHTTPSessionEngine::configure(Transfer& transfer) {
  CURL* easy = transfer.easy.get();
  const QVURLRequest& request = transfer.task->originalRequest();
  bool ok = true;
  const auto set = [&](CURLoption option, auto value) {
    ok = ok && curl_easy_setopt(easy, option, value) == CURLE_OK;
  };
  const auto appendHeader = [&](const std::string& line) {
    curl_slist* list = curl_slist_append(transfer.headerList.get(), line.c_str());
    if (!list) {
      ok = false;
      return;
    }
    // The head of the list, new only for the first line.
    (void)transfer.headerList.release();
    transfer.headerList.reset(list);
  };

  set(CURLOPT_URL, request.URL().c_str());
  set(CURLOPT_ERRORBUFFER, transfer.errorText);
  set(CURLOPT_NOSIGNAL, 1L);
  // Peers are on the local network: no proxy from the environment, and bodies pass through undecoded
  // (their content coding is ours to undo).
  set(CURLOPT_PROXY, "");
  set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  set(CURLOPT_CONNECTTIMEOUT_MS,
      static_cast<long>(std::chrono::ceil<std::chrono::milliseconds>(transfer.timeout).count()));
  set(CURLOPT_HEADERFUNCTION, &QVHTTPSessionEngine::onHeader);
  set(CURLOPT_HEADERDATA, &transfer);
  set(CURLOPT_WRITEFUNCTION, &QVHTTPSessionEngine::onWrite);
  set(CURLOPT_WRITEDATA, &transfer);
  if (transfer.task->bodyDelivery() == QVURLSessionDataTask::BodyDelivery::Streamed)
    set(CURLOPT_BUFFERSIZE, kStreamedDownloadBufferSize);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &QVHTTPSessionEngine::onProgress);
  set(CURLOPT_XFERINFODATA, &transfer);

  for (const auto& [name, value] : request.allHTTPHeaderFields()) {
    // "Name;" is curl's way of sending a field with an empty value.
    appendHeader(value.empty() ? name + ";" : name + ": " + value);
  }
  const std::string& method = request.HTTPMethod();
  if (method != "GET") {
    set(CURLOPT_POST, 1L);
    if (method != "POST") set(CURLOPT_CUSTOMREQUEST, method.c_str());
    // curl would otherwise add a form content type and wait for "100 Continue" before large bodies.
    if (!request.valueForHTTPHeaderField("Content-Type")) appendHeader("Content-Type:");
    appendHeader("Expect:");
    if (request.HTTPBodyStream()) {
      appendHeader("Transfer-Encoding: chunked");
      set(CURLOPT_READFUNCTION, &QVHTTPSessionEngine::onRead);
      set(CURLOPT_READDATA, &transfer);
      set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
    } else {
      set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.HTTPBody().size()));
      // The task keeps the request, and so the bytes, for as long as the transfer runs. Never a null
      // pointer: curl would then read the body from standard input.
      const QVData& body = request.HTTPBody();
      set(CURLOPT_POSTFIELDS, body.empty() ? "" : reinterpret_cast<const char*>(body.data()));
    }
  }
  if (transfer.headerList) set(CURLOPT_HTTPHEADER, transfer.headerList.get());

  if (auto entry = resolveEntryForURL(request.URL())) {
    transfer.resolveList.reset(curl_slist_append(nullptr, entry->c_str()));
    if (!transfer.resolveList) ok = false;
    set(CURLOPT_RESOLVE, transfer.resolveList.get());
  }
  return ok;
}

void QVHTTPSessionEngine::finishCancelledTransfers() {
  std::vector<CURL*> cancelled;
  for (const auto& [easy, transfer] : transfers_) {
    if (transfer->task->isCancelled()) cancelled.push_back(easy);
  }
  for (CURL* easy : cancelled)
    finishTransfer(easy, std::nullopt);
}

void QVHTTPSessionEngine::finishDoneTransfers() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    // The message dies with the handle's removal: copy what it says first.
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;
    finishTransfer(easy, result);
  }
}

// Without a result the transfer was cut short by a cancel or by the session's end.
void QVHTTPSessionEngine::finishTransfer(CURL* easy, std::optional<CURLcode> result) {
  auto node = transfers_.extract(easy);
  if (node.empty()) return;
  Transfer& transfer = *node.mapped();
  const CURLMcode removed = curl_multi_remove_handle(multi_.get(), easy);
  if (removed != CURLM_OK) QV_LOG_ERROR("Couldn't stop HTTP transfer ({})", curl_multi_strerror(removed));

  std::optional<QVError> error;
  if (!result) {
    error = URLError(QVURLError::Cancelled);
  } else if (*result == CURLE_OK) {
    completeResponseHead(transfer);
    if (transfer.statusCode < 200 || transfer.statusCode > 299) {
      error = URLError(QVURLError::BadServerResponse,
                       {{QVHTTPStatusCodeErrorKey, static_cast<int64_t>(transfer.statusCode)}});
    }
  } else {
    error = URLError(transfer.timedOut       ? QVURLError::TimedOut
                     : transfer.bodyTooLarge ? kDataLengthExceedsMaximumErrorCode
                                             : URLErrorCodeForResult(*result));
    QV_LOG_DEBUG("HTTP request to {} failed: {} ({})", transfer.task->originalRequest().URL(),
                 curl_easy_strerror(*result), transfer.errorText);
  }
  std::optional<QVData> body;
  if (transfer.response && transfer.task->bodyDelivery() == QVURLSessionDataTask::BodyDelivery::Buffered) {
    body = std::move(transfer.body);
  }
  transfer.task->finish(transfer.response, std::move(body), std::move(error));
}

bool QVHTTPSessionEngine::completeResponseHead(Transfer& transfer) {
  if (transfer.response || transfer.statusCode == 0) return true;
  const char* effectiveURL = nullptr;
  if (curl_easy_getinfo(transfer.easy.get(), CURLINFO_EFFECTIVE_URL, &effectiveURL) != CURLE_OK ||
      !effectiveURL) {
    effectiveURL = transfer.task->originalRequest().URL().c_str();
  }
  transfer.response = std::make_shared<const QVHTTPURLResponse>(effectiveURL, transfer.statusCode,
                                                                std::move(transfer.headerFields));
  transfer.task->setResponse(transfer.response);
  std::shared_ptr<const QVHTTPSessionManager::DataTaskDidReceiveResponseBlock> block;
  {
    std::lock_guard lock(mutex_);
    block = responseBlock_;
  }
  if (!block || stopping()) return true;
  try {
    (*block)(session_, transfer.task, *transfer.response);
  } catch (const std::exception& exception) {
    QV_LOG_ERROR("Couldn't deliver HTTP response ({})", exception.what());
    return false;
  }
  return true;
}

size_t QVHTTPSessionEngine::onHeader(char* buffer, size_t size, size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  const size_t length = size * count;
  // Trailers after a chunked body come here too; the head is settled by then.
  if (transfer.response) return length;
  const std::string_view line = trimmed(std::string_view(buffer, length));
  if (line.starts_with("HTTP/")) {
    // A new head (after "100 Continue", say) replaces what came before.
    const size_t space = line.find(' ');
    transfer.statusCode =
        space == std::string_view::npos ? 0 : std::atol(std::string(line.substr(space + 1)).c_str());
    transfer.headerFields.clear();
    transfer.lastHeaderName.clear();
  } else if (line.empty()) {
    if (transfer.statusCode >= 200 && !transfer.engine->completeResponseHead(transfer)) return 0;
  } else if (buffer[0] == ' ' || buffer[0] == '\t') {
    auto folded = transfer.headerFields.find(transfer.lastHeaderName);
    if (folded != transfer.headerFields.end()) folded->second.append(" ").append(line);
  } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
    std::string name(trimmed(line.substr(0, colon)));
    const std::string_view value = trimmed(line.substr(colon + 1));
    auto [field, inserted] = transfer.headerFields.try_emplace(name, value);
    if (!inserted) field->second.append(", ").append(value);
    transfer.lastHeaderName = std::move(name);
  }
  return length;
}

size_t QVHTTPSessionEngine::onWrite(char* buffer, size_t size, size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  QVHTTPSessionEngine& engine = *transfer.engine;
  const size_t length = size * count;
  if (transfer.task->isCancelled() || engine.stopping() || !engine.completeResponseHead(transfer)) return 0;
  if (transfer.task->bodyDelivery() == QVURLSessionDataTask::BodyDelivery::Buffered &&
      transfer.body.size() + length > kBufferedBodyLimit) {
    QV_LOG_ERROR("HTTP response body over {} bytes refused", kBufferedBodyLimit);
    transfer.bodyTooLarge = true;
    return 0;
  }
  try {
    std::shared_ptr<const QVHTTPSessionManager::DataTaskDidReceiveDataBlock> block;
    {
      std::lock_guard lock(engine.mutex_);
      block = engine.dataBlock_;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(buffer);
    if (block) (*block)(engine.session_, transfer.task, std::span<const uint8_t>(bytes, length));
    if (transfer.task->bodyDelivery() == QVURLSessionDataTask::BodyDelivery::Buffered) {
      transfer.body.insert(transfer.body.end(), bytes, bytes + length);
    }
  } catch (const std::exception& exception) {
    QV_LOG_ERROR("Couldn't deliver HTTP response data ({})", exception.what());
    return 0;
  }
  return length;
}

size_t QVHTTPSessionEngine::onRead(char* buffer, size_t size, size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  const size_t capacity = size * count;
  if (transfer.task->isCancelled() || transfer.engine->stopping()) return CURL_READFUNC_ABORT;
  if (!transfer.bodyAhead) {
    transfer.bodyAhead = std::make_unique<QVReadAhead>(
        [task = transfer.task](uint8_t* slice, size_t length) -> std::optional<size_t> {
          try {
            const size_t read = task->originalRequest().HTTPBodyStream()(slice, length);
            if (read <= length) return read;
            QV_LOG_ERROR("Couldn't send HTTP body: stream gave {} bytes for {}", read, length);
          } catch (const std::exception& exception) {
            QV_LOG_ERROR("Couldn't send HTTP body ({})", exception.what());
          }
          return std::nullopt;
        },
        kUploadChunkSize, kUploadChunksAhead);
  }
  const auto read = transfer.bodyAhead->read(reinterpret_cast<uint8_t*>(buffer), capacity);
  return read ? *read : CURL_READFUNC_ABORT;
}

// Also the place where a cancel or an idle connection stops a transfer that moves no data.
int QVHTTPSessionEngine::onProgress(void* userdata, curl_off_t, curl_off_t downloaded, curl_off_t,
                                    curl_off_t uploaded) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  if (transfer.task->isCancelled() || transfer.engine->stopping()) return 1;
  const auto now = Clock::now();
  if (downloaded != transfer.lastDownloaded || uploaded != transfer.lastUploaded) {
    transfer.lastDownloaded = downloaded;
    transfer.lastUploaded = uploaded;
    transfer.lastActivity = now;
    return 0;
  }
  if (now - transfer.lastActivity < transfer.timeout) return 0;
  transfer.timedOut = true;
  return 1;
}

QVHTTPSessionManager::QVHTTPSessionManager() : engine_(std::make_shared<QVHTTPSessionEngine>(*this)) {
  engine_->start();
}

QVHTTPSessionManager::~QVHTTPSessionManager() {
  engine_->shutdown();
}

std::shared_ptr<QVURLSessionDataTask>
QVHTTPSessionManager::dataTaskWithRequest(const QVURLRequest& request,
                                          QVURLSessionDataTask::Completion completionHandler,
                                          QVURLSessionDataTask::BodyDelivery bodyDelivery) {
  return std::shared_ptr<QVURLSessionDataTask>(new QVURLSessionDataTask(
      engine_->nextTaskIdentifier(), request, bodyDelivery, std::move(completionHandler), engine_));
}

void QVHTTPSessionManager::setDataTaskDidReceiveDataBlock(DataTaskDidReceiveDataBlock block) {
  engine_->setDataBlock(std::move(block));
}

void QVHTTPSessionManager::setDataTaskDidReceiveResponseBlock(DataTaskDidReceiveResponseBlock block) {
  engine_->setResponseBlock(std::move(block));
}

void QVHTTPSessionManager::setAddressForHost(const std::string& host, const std::string& address) {
  if (address.empty())
    QVDNSSDHostRegistry::removeAddress(host);
  else
    QVDNSSDHostRegistry::setAddress(host, address);
}

std::optional<std::string> QVHTTPSessionManager::addressForHost(const std::string& host) {
  return QVDNSSDHostRegistry::address(host);
}
