// SPDX-License-Identifier: MIT
#pragma once
// Extended attributes. Names are given without namespace; they are stored in the "user." namespace.

#include "Foundation/QVTypes.h"

#include <optional>
#include <string>

bool QVSetExtendedAttribute(const std::string& path, const std::string& name, const QVData& value);
// None when the attribute does not exist or cannot be read; an empty value when it exists with no bytes.
std::optional<QVData> QVGetExtendedAttribute(const std::string& path, const std::string& name);
bool QVRemoveExtendedAttribute(const std::string& path, const std::string& name);
