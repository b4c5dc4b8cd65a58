// SPDX-License-Identifier: MIT
#include "support/QVTestSupport.h"

#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

class QVLogCapture::Sink : public spdlog::sinks::base_sink<std::mutex> {
public:
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    spdlog::memory_buf_t formatted;
    formatter_->format(msg, formatted);
    std::string line = fmt::to_string(formatted);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
      line.pop_back();
    lines_.push_back(std::move(line));
  }
  void flush_() override {}

private:
  std::vector<std::string> lines_;
};

QVLogCapture::QVLogCapture() : sink_(std::make_shared<Sink>()) {
  QVLogging::addSink(sink_);
}
QVLogCapture::~QVLogCapture() {
  QVLogging::removeSink(sink_);
}
std::vector<std::string> QVLogCapture::lines() const {
  return sink_->lines();
}
void QVLogCapture::clear() {
  sink_->clear();
}

bool QVLogCapture::contains(const std::string& text, const std::string& level) const {
  const std::string prefix = level.empty() ? "" : "[" + level + "]";
  for (const auto& line : lines()) {
    if (line.find(text) != std::string::npos && line.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

size_t QVLogCapture::count(const std::string& text) const {
  const auto all = lines();
  return std::count_if(all.begin(), all.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

QVTemporaryFolder::QVTemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "qvhandoff-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

QVTemporaryFolder::~QVTemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> QVTemporaryFolder::entries(const std::string& below) const {
  std::vector<std::string> names;
  const auto folder = path_ / below;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    names.push_back(entry.path().lexically_relative(folder).string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool QVRunMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  return QVMainQueue::main().runUntil(done, timeout);
}

QVData QVTestBytes(size_t length, uint32_t seed) {
  std::mt19937 generator(seed);
  QVData bytes(length);
  for (auto& byte : bytes)
    byte = static_cast<uint8_t>(generator());
  return bytes;
}

void QVWriteFile(const std::string& path, const QVData& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

QVData QVReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return QVData(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

QVData QVOpenSSLCommand(const std::string& operation, QVData key, const QVData& input) {
  key.resize(32);
  QVTemporaryFolder folder;
  QVWriteFile(folder.file("in"), input);
  const std::string command =
      fmt::format("openssl enc {} -aes-256-cbc -K {:02x} -iv {:032} -in {} -out {} 2>/dev/null", operation,
                  fmt::join(key, ""), 0, folder.file("in"), folder.file("out"));
  if (std::system(command.c_str()) != 0) return {};
  return QVReadFile(folder.file("out"));
}
