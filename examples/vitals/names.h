#ifndef VITALS_NAMES_H
#define VITALS_NAMES_H

#include <sstream>
#include <string>
#include <vector>

namespace vitals {

// What the processes tell each other beside the vital signs themselves.
constexpr char kHubTopic[] = "hub";
constexpr char kStatisticsTag[] = "statistics";  ///< What the hub has counted; not cached.
constexpr char kSensorTopic[] = "sensor";
constexpr char kKeysTag[] = "keys";  ///< The key of every value that the sensor has published.

/// A list of keys as it travels: one "topic:tag" a line.
using Keys = std::vector<std::string>;

inline std::string encode(const Keys& keys) {
  std::string text;
  for (const std::string& key : keys) text += key + "\n";
  return text;
}

inline Keys decodeKeys(const void* data, std::size_t size) {
  std::istringstream text(std::string(static_cast<const char*>(data), size));
  Keys keys;
  for (std::string key; std::getline(text, key);) keys.push_back(key);
  return keys;
}

inline std::string topicOf(const std::string& key) { return key.substr(0, key.find(':')); }
inline std::string tagOf(const std::string& key) { return key.substr(key.find(':') + 1); }

}  // namespace vitals

#endif
