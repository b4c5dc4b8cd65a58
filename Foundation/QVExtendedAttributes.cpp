// SPDX-License-Identifier: MIT
#include "Foundation/QVExtendedAttributes.h"

#include <sys/xattr.h>

#include <cerrno>

namespace {

// Unprivileged processes may only use the user namespace on Linux.
std::string namespaced(const std::string& name) {
  return "user." + name;
}

// The attribute can grow between the size query and the read; a few rounds settle it.
constexpr int kReadAttempts = 4;

} // namespace

bool QVSetExtendedAttribute(const std::string& path, const std::string& name, const QVData& value) {
  return setxattr(path.c_str(), namespaced(name).c_str(), value.data(), value.size(), 0) == 0;
}

std::optional<QVData> QVGetExtendedAttribute(const std::string& path, const std::string& name) {
  const std::string fullName = namespaced(name);
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    const ssize_t size = getxattr(path.c_str(), fullName.c_str(), nullptr, 0);
    if (size < 0) return std::nullopt;
    QVData value(static_cast<size_t>(size));
    const ssize_t read = getxattr(path.c_str(), fullName.c_str(), value.data(), value.size());
    if (read >= 0) {
      value.resize(static_cast<size_t>(read));
      return value;
    }
    if (errno != ERANGE) return std::nullopt;
  }
  return std::nullopt;
}

bool QVRemoveExtendedAttribute(const std::string& path, const std::string& name) {
  return removexattr(path.c_str(), namespaced(name).c_str()) == 0;
}
