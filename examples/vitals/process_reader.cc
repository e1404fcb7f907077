#include "process_reader.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace vitals {

// Processes come and go meanwhile: whoever has gone is left out.
Processes ProcessReader::all() const {
  Processes processes;
  std::error_code error;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator entry(folder_, error); !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.size() > 9 || name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (auto process = one(std::stoi(name))) processes.push_back(std::move(*process));
  }
  return processes;
}

std::optional<Process> ProcessReader::one(int id) const {
  std::ifstream input(folder_ + "/" + std::to_string(id) + "/stat");
  std::ostringstream content;
  content << input.rdbuf();
  return parseProcess(content.str());
}

}  // namespace vitals
