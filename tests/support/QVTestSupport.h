// SPDX-License-Identifier: MIT
#pragma once
// Helpers shared by the tests, and the test framework with them: captured log lines, a scratch folder that
// removes itself, and running the main queue until a condition holds.

#include "Foundation/QVTypes.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// Collects every log line while it exists. Lines are "[level] source:line operation message".
class QVLogCapture {
public:
  QVLogCapture();
  ~QVLogCapture();
  std::vector<std::string> lines() const;
  // Whether a captured line's message contains `text` (and, when given, was logged at `level`:
  // "error", "warning", "info", "debug").
  bool contains(const std::string& text, const std::string& level = "") const;
  size_t count(const std::string& text) const;
  void clear();

private:
  class Sink;
  std::shared_ptr<Sink> sink_;
};

class QVTemporaryFolder {
public:
  QVTemporaryFolder();
  ~QVTemporaryFolder();
  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  // The names of everything below the folder (or its subfolder `below`), relative to it, sorted.
  std::vector<std::string> entries(const std::string& below = "") const;

private:
  std::filesystem::path path_;
};

// Runs the main queue on the calling thread until `done` holds; false after `timeout`.
bool QVRunMainQueueUntil(const std::function<bool()>& done,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10));

QVData QVTestBytes(size_t length, uint32_t seed = 1);
void QVWriteFile(const std::string& path, const QVData& data);
QVData QVReadFile(const std::string& path);

// AES-256-CBC with a zero IV and PKCS#7 by the openssl command, given the 32 key bytes peers use
// (zero-padded or cut): an implementation independent of ours, for the wire bytes. `operation` is -e or -d.
QVData QVOpenSSLCommand(const std::string& operation, QVData key, const QVData& input);
