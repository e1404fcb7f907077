// Runs a target on kept inputs, with any compiler: replay TARGET FILE_OR_FOLDER...

#include <filesystem>
#include <fstream>
#include <iterator>

#include "target.h"

namespace tessel::fuzz {
namespace {

int replay(Target target, const std::filesystem::path& path) {
  if (std::filesystem::is_directory(path)) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      count += replay(target, entry.path());
    }
    return count;
  }
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  // The sanitizers see a read past the end of a block of its own.
  runOne(target, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return 1;
}

}  // namespace
}  // namespace tessel::fuzz

int main(int argc, char** argv) {
  using namespace tessel::fuzz;
  const auto target = targets().find(argc > 1 ? argv[1] : "");
  if (target == targets().end()) {
    std::fputs("replay TARGET FILE_OR_FOLDER...\n", stderr);
    for (const auto& each : targets()) std::fprintf(stderr, "  %s\n", each.first.c_str());
    return 2;
  }
  int count = 0;
  for (int i = 2; i < argc; ++i) count += replay(target->second, argv[i]);
  std::printf("%s: %d inputs\n", argv[1], count);
  return count == 0 ? 1 : 0;
}
