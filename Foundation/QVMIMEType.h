// SPDX-License-Identifier: MIT
#pragma once
#include <string>

// The MIME type of a file name, guessed from its extension with the shared MIME database
// ("application/pdf"); "application/octet-stream" when nothing is known.
std::string QVMIMETypeForPath(const std::string& path);
