// SPDX-License-Identifier: MIT
// Streaming throughput of the cipher in the chunk size the server hands out. The raw EVP runs write into
// one reused buffer: the gap to them is what the cryptor's per-chunk buffers cost.

#include "QVHandoff/QVHandoffAES256Cryptor.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <memory>

namespace {

constexpr size_t kChunk = 256 * 1024;

QVData chunkBytes() {
  QVData bytes(kChunk);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(i * 131 + 7);
  return bytes;
}

// Decrypting arbitrary bytes is as costly as decrypting real ciphertext; padding is only checked at the
// end, which these runs never reach.
void cryptorStream(benchmark::State& state, uint32_t operation) {
  const QVData chunk = chunkBytes();
  auto cryptor = QVHandoffAES256Cryptor::initWithKeyData(QVData(32, 0x5a), operation);
  for (auto _ : state) {
    auto output = cryptor->updateWithData(chunk);
    benchmark::DoNotOptimize(output);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kChunk));
}

void evpStream(benchmark::State& state, int encrypt) {
  const QVData chunk = chunkBytes();
  const QVData key(32, 0x5a), iv(16, 0);
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                          &EVP_CIPHER_CTX_free);
  EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data(), encrypt);
  QVData output(kChunk + 16);
  for (auto _ : state) {
    int written = 0;
    EVP_CipherUpdate(context.get(), output.data(), &written, chunk.data(), static_cast<int>(kChunk));
    benchmark::DoNotOptimize(output.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kChunk));
}

} // namespace

BENCHMARK_CAPTURE(cryptorStream, encrypt, QVHandoffAES256OperationEncrypt);
BENCHMARK_CAPTURE(cryptorStream, decrypt, QVHandoffAES256OperationDecrypt);
BENCHMARK_CAPTURE(evpStream, encrypt, 1);
BENCHMARK_CAPTURE(evpStream, decrypt, 0);

BENCHMARK_MAIN();
