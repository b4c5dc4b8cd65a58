// SPDX-License-Identifier: MIT
// A line of `qvhandoff serve`'s input: the tool reads it from whatever drives it.
#include "QVFuzzSupport.h"
#include "QVHostCommand.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto command = QVHostCommand::parse(line, &error);
  // A command comes with no error; a line that is not one says why.
  if (command && !error.empty()) abort();
  if (command && !QVHostCommand::name(command->verb)) abort();
  return 0;
}
