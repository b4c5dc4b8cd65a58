#include "QVTestHTTPClient.h"

#include "Foundation/QVCFree.h"
#include "support/QVTestSupport.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <future>
#include <memory>

namespace {

struct Transfer {
  const QVTestHTTPRequest& request;
  size_t sent = 0;
  QVTestHTTPResponse response;
};

size_t readBody(char* buffer, size_t size, size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  if (transfer.sent >= transfer.request.abortAfter) return CURL_READFUNC_ABORT;
  const size_t length = std::min({size * count, transfer.request.body.size() - transfer.sent,
                                  transfer.request.chunkSize ? transfer.request.chunkSize : SIZE_MAX,
                                  transfer.request.abortAfter - transfer.sent});
  std::memcpy(buffer, transfer.request.body.data() + transfer.sent, length);
  transfer.sent += length;
  return length;
}

size_t writeBody(char* data, size_t size, size_t count, void* context) {
  auto& body = static_cast<Transfer*>(context)->response.body;
  body.insert(body.end(), data, data + size * count);
  return size * count;
}

size_t writeHeader(char* data, size_t size, size_t count, void* context) {
  const std::string line(data, size * count);
  const size_t colon = line.find(':');
  if (colon == std::string::npos) return size * count;
  std::string name = line.substr(0, colon);
  std::transform(name.begin(), name.end(), name.begin(), ::tolower);
  const size_t start = line.find_first_not_of(' ', colon + 1);
  static_cast<Transfer*>(context)->response.headers[name] =
      line.substr(start, line.find_last_not_of("\r\n") + 1 - start);
  return size * count;
}

} // namespace

QVTestHTTPResponse QVTestHTTPPerformHere(uint16_t port, const QVTestHTTPRequest& request) {
  Transfer transfer{request, 0, {}};
  std::unique_ptr<CURL, QVCFree<&curl_easy_cleanup>> handle(curl_easy_init());
  CURL* curl = handle.get();
  const std::string url = fmt::format("http://127.0.0.1:{}{}", port, request.path);
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &writeBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &writeHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  for (const auto& header : request.headers)
    headers = curl_slist_append(headers, header.c_str());
  if (request.method == "POST") {
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
    if (request.chunkSize == 0)
      curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, curl_off_t(request.body.size()));
    if (request.chunkSize > 0) headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
  }
  const std::unique_ptr<curl_slist, QVCFree<&curl_slist_free_all>> headerList(headers);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  transfer.response.curlCode = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &transfer.response.status);
  return transfer.response;
}

std::vector<QVTestHTTPResponse>
QVTestHTTPPerformConcurrently(uint16_t port, const std::vector<QVTestHTTPRequest>& requests) {
  std::vector<std::future<QVTestHTTPResponse>> results;
  for (const auto& request : requests) {
    results.push_back(std::async(std::launch::async, [&] { return QVTestHTTPPerformHere(port, request); }));
  }
  auto ready = [](const auto& result) {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  };
  QVRunMainQueueUntil([&] { return std::all_of(results.begin(), results.end(), ready); },
                      std::chrono::seconds(120));
  std::vector<QVTestHTTPResponse> responses;
  for (auto& result : results)
    responses.push_back(result.get());
  return responses;
}

QVData QVOpenSSLCommand(const std::string& operation, const QVData& key, const QVData& input) {
  QVTemporaryFolder folder;
  QVWriteFile(folder.file("in"), input);
  const std::string command =
      fmt::format("openssl enc {} -aes-256-cbc -K {:02x} -iv {:032} -in {} -out {} 2>/dev/null", operation,
                  fmt::join(key, ""), 0, folder.file("in"), folder.file("out"));
  if (std::system(command.c_str()) != 0) return {};
  return QVReadFile(folder.file("out"));
}
