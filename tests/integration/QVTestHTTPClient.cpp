#include "QVTestHTTPClient.h"

#include "support/QVTestSupport.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>

namespace {

struct Transfer {
  const QVTestHTTPRequest* request;
  size_t sent = 0;
  QVTestHTTPResponse response;
};

size_t readBody(char* buffer, size_t size, size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const QVTestHTTPRequest& request = *transfer.request;
  if (transfer.sent >= request.abortAfter) return CURL_READFUNC_ABORT;
  size_t length = std::min(size * count, request.body.size() - transfer.sent);
  if (request.chunkSize > 0) length = std::min(length, request.chunkSize);
  length = std::min(length, request.abortAfter - transfer.sent);
  std::memcpy(buffer, request.body.data() + transfer.sent, length);
  transfer.sent += length;
  return length;
}

size_t writeBody(char* data, size_t size, size_t count, void* context) {
  auto& body = static_cast<Transfer*>(context)->response.body;
  body.insert(body.end(), data, data + size * count);
  return size * count;
}

size_t writeHeader(char* data, size_t size, size_t count, void* context) {
  std::string line(data, size * count);
  const size_t colon = line.find(':');
  if (colon != std::string::npos) {
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n'))
      value.pop_back();
    static_cast<Transfer*>(context)->response.headers[name] = value;
  }
  return size * count;
}

} // namespace

QVTestHTTPResponse QVTestHTTPPerformHere(uint16_t port, const QVTestHTTPRequest& request) {
  Transfer transfer{&request, 0, {}};
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + request.path;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 60L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &writeBody);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, &writeHeader);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &transfer);
  // Bodies are sent as they are: no decoding of the custom content coding.
  curl_easy_setopt(curl.get(), CURLOPT_HTTP_CONTENT_DECODING, 0L);
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  for (const auto& header : request.headers)
    headers = curl_slist_append(headers, header.c_str());
  if (request.method == "POST" || request.method == "PUT") {
    curl_easy_setopt(curl.get(), CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_READFUNCTION, &readBody);
    curl_easy_setopt(curl.get(), CURLOPT_READDATA, &transfer);
    if (request.chunkSize > 0) {
      headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
    } else {
      curl_easy_setopt(curl.get(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
  } else if (request.method == "HEAD") {
    curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
  } else if (request.method != "GET") {
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
  transfer.response.curlCode = curl_easy_perform(curl.get());
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &transfer.response.status);
  curl_slist_free_all(headers);
  return transfer.response;
}

QVTestHTTPResponse QVTestHTTPPerform(uint16_t port, const QVTestHTTPRequest& request) {
  auto result = std::async(std::launch::async, [&] { return QVTestHTTPPerformHere(port, request); });
  QVRunMainQueueUntil([&] { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
                      std::chrono::seconds(90));
  return result.get();
}

std::vector<QVTestHTTPResponse>
QVTestHTTPPerformConcurrently(uint16_t port, const std::vector<QVTestHTTPRequest>& requests) {
  std::vector<std::future<QVTestHTTPResponse>> results;
  for (const auto& request : requests) {
    results.push_back(std::async(std::launch::async, [&] { return QVTestHTTPPerformHere(port, request); }));
  }
  QVRunMainQueueUntil(
      [&] {
        return std::all_of(results.begin(), results.end(), [](const auto& result) {
          return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
      },
      std::chrono::seconds(120));
  std::vector<QVTestHTTPResponse> responses;
  for (auto& result : results)
    responses.push_back(result.get());
  return responses;
}

QVData QVOpenSSLCommand(const std::string& operation, const QVData& key, const QVData& input) {
  QVTemporaryFolder folder;
  QVWriteFile(folder.file("in"), input);
  std::string hexKey;
  char byte[3];
  for (uint8_t b : key) {
    std::snprintf(byte, sizeof byte, "%02x", b);
    hexKey += byte;
  }
  const std::string command = "openssl enc " + operation + " -aes-256-cbc -K " + hexKey +
                              " -iv 00000000000000000000000000000000 -in " + folder.file("in") + " -out " +
                              folder.file("out") + " 2>/dev/null";
  if (std::system(command.c_str()) != 0 || !std::filesystem::exists(folder.file("out"))) return {};
  return QVReadFile(folder.file("out"));
}
