// SPDX-License-Identifier: MIT
// Serving a 1 GiB document over loopback, as a peer downloads it: POST "/api/handoff", the server copies
// the document, streams it encrypted, and a libcurl client decrypts each piece as it arrives and drops
// it. Bytes per second are of the document; the copy made before streaming is part of the cost.

#include "Foundation/QVCFree.h"
#include "Foundation/QVFileOperations.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"
#include "QVHandoff/QVHandoffHTTPServer.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <random>
#include <sys/resource.h>

namespace {

constexpr uint64_t kDocumentSize = 1ULL << 30;

struct Download {
  std::unique_ptr<QVHandoffAES256Cryptor> decryptor;
  uint64_t plaintextBytes = 0;
  bool failed = false;
};

size_t receive(char* data, size_t size, size_t count, void* context) {
  auto& download = *static_cast<Download*>(context);
  auto plaintext = download.decryptor->updateWithData(reinterpret_cast<const uint8_t*>(data), size * count);
  if (!plaintext) download.failed = true;
  if (plaintext) download.plaintextBytes += plaintext->size();
  return size * count;
}

// The document, its folder (also the server's temporary directory) and the running server.
struct Setup {
  std::filesystem::path folder;
  std::string document;
  std::string previousTMPDIR;
  QVData key = QVData(32, 0x3c);
  QVHandoffHTTPServer server;

  Setup() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvhandoff-bench-XXXXXX").string();
    folder = mkdtemp(pattern.data());
    if (const char* tmp = std::getenv("TMPDIR")) previousTMPDIR = tmp;
    setenv("TMPDIR", folder.c_str(), 1);
    document = (folder / "Document.pdf").string();
    QVData block(1 << 20);
    std::mt19937 random(7);
    for (auto& byte : block)
      byte = static_cast<uint8_t>(random());
    std::ofstream out(document, std::ios::binary);
    for (uint64_t written = 0; written < kDocumentSize; written += block.size()) {
      out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
    }
    server.setInterface("127.0.0.1");
    server.setAES256Key(key);
    server.setContext(QVHandoffManager::defaultManager()->serverContext());
    server.start(nullptr);
  }
  ~Setup() {
    server.stop();
    std::filesystem::remove_all(folder);
    previousTMPDIR.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", previousTMPDIR.c_str(), 1);
  }
};

void serveAndDecrypt(benchmark::State& state) {
  Setup setup;
  if (!setup.server.isRunning()) return state.SkipWithError("server did not start");
  const QVData body = *QVHandoffMessageCodec::dataFromJSONObject({{"filePath", setup.document}}, setup.key);
  const std::string url = fmt::format("http://127.0.0.1:{}/api/handoff", setup.server.port());
  for (auto _ : state) {
    Download download{QVHandoffAES256Cryptor::decryptorWithKeyData(setup.key)};
    std::unique_ptr<CURL, QVCFree<&curl_easy_cleanup>> curl(curl_easy_init());
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &download);
    const CURLcode result = curl_easy_perform(curl.get());
    const auto last = download.decryptor->finish();
    if (last) download.plaintextBytes += last->size();
    if (result != CURLE_OK || download.failed || !last || download.plaintextBytes != kDocumentSize) {
      return state.SkipWithError("download incomplete or undecryptable");
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDocumentSize));
  state.counters["MB/s"] = benchmark::Counter(static_cast<double>(state.iterations() * kDocumentSize) / 1e6,
                                              benchmark::Counter::kIsRate);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peakRSS_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024; // both ends: one process
}

// The private copy the endpoint makes before it streams, alone: the share of the disk in the figure above.
void copyBeforeServing(benchmark::State& state) {
  Setup setup;
  const std::string copy = (setup.folder / "Copy.pdf").string();
  for (auto _ : state) {
    std::filesystem::remove(copy);
    if (!QVCopyItem(setup.document, copy, nullptr)) return state.SkipWithError("copy failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDocumentSize));
}

} // namespace

BENCHMARK(copyBeforeServing)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(serveAndDecrypt)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
