// SPDX-License-Identifier: MIT
#pragma once
// The tags of a handed-off copy: where it came from (path, size, date, device, product, content type),
// kept in extended attributes of the copy itself, and the date a host may set to say it changed it.

#include "Foundation/QVTypes.h"

#include <memory>
#include <optional>
#include <string>

class QVHandoffDocumentInfo;

namespace QVHandoffFileTags {

// Tags `path` with the record's origin. Logs and stops at the first tag that cannot be written.
void addDocumentInfo(const QVHandoffDocumentInfo& documentInfo, const std::string& path);
// The origin of a tagged copy; none for an untagged file (silently) or a damaged tag (logged).
std::shared_ptr<QVHandoffDocumentInfo> documentInfoForFileAtPath(const std::string& path);
// Removes every tag but the content type.
void removeDocumentInfoFromFileAtPath(const std::string& path);

bool setString(const std::string& string, const std::string& name, const std::string& path);
// A tag's text; none when absent or not UTF-8.
std::optional<std::string> stringForXattrName(const std::string& name, const std::string& path);
std::optional<std::string> handoffContentTypeForFileAtPath(const std::string& path);

// Whole seconds: the date a peer compares goes through the protocol's text form.
void setOverriddenFileModificationDate(QVDate date, const std::string& path);
std::optional<QVDate> overriddenFileModificationDateForFileAtPath(const std::string& path);
// The later of the file's own date and the overridden one.
std::optional<QVDate> latestFileModificationDateForFileAtPath(const std::string& path);
// Within a second; no first date is no difference, a first date against none is.
bool datesAreSimilar(const std::optional<QVDate>& date, const std::optional<QVDate>& other);

} // namespace QVHandoffFileTags
