// SPDX-License-Identifier: MIT
#include "Foundation/QVMIMEType.h"

#include "Foundation/QVCFree.h"

#include <gio/gio.h>

#include <memory>

namespace {

using QVGString = std::unique_ptr<gchar, QVCFree<&g_free>>;

constexpr const char* kUnknownMIMEType = "application/octet-stream";

} // namespace

std::string QVMIMETypeForPath(const std::string& path) {
  // Only the name is consulted: the file may not exist yet, and reading it could block on a slow mount.
  const QVGString contentType(g_content_type_guess(path.c_str(), nullptr, 0, nullptr));
  if (!contentType) return kUnknownMIMEType;
  const QVGString mimeType(g_content_type_get_mime_type(contentType.get()));
  if (!mimeType) return kUnknownMIMEType;
  return mimeType.get();
}
