// SPDX-License-Identifier: MIT
#pragma once
// How the client words its requests to peers, in one place for every transfer.

#include "Foundation/QVTypes.h"
#include "Network/HTTPClient/QVURLRequest.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

class QVHandoffServerInfo;

namespace QVHandoffRequests {

// A POST of an encrypted JSON message to one of the peer's endpoints; none when it cannot be encrypted.
std::optional<QVURLRequest> JSONRequest(const QVHandoffServerInfo& serverInfo, const char* path,
                                        const nlohmann::json& object);
// A query value as peers read it: what a URL path or fragment may hold, and "#", stays as it is.
std::string percentEncodedQueryValue(std::string_view text);
// "{12.5, 30}": each coordinate in its shortest form.
std::string pointText(QVPoint point);
// The message date text; empty for none.
std::string dateText(const std::optional<QVDate>& date);
// A task that was cancelled ends silently.
bool isCancellation(const std::optional<QVError>& error);

} // namespace QVHandoffRequests
