// Where libFuzzer comes in: the program holds one target.

#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const tessel::fuzz::Target target = tessel::fuzz::targets().begin()->second;
  tessel::fuzz::runOne(target, data, size);
  return 0;
}
