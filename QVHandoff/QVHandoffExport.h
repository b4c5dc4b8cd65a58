// SPDX-License-Identifier: MIT
#pragma once
// libqvhandoff is built with hidden visibility: only what carries this macro is part of its ABI.

#define QVHANDOFF_EXPORT __attribute__((visibility("default")))
