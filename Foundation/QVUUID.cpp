// SPDX-License-Identifier: MIT
#include "Foundation/QVUUID.h"

#include <uuid/uuid.h>

std::string QVUUIDString() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return std::string(text);
}
