#ifndef TESSEL_FUZZ_TARGET_H
#define TESSEL_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "wire.h"

namespace tessel::fuzz {

using Target = void (*)(const std::vector<Frames>& messages);

/// The one or more targets of the program, by name.
inline std::map<std::string, Target>& targets() {
  static std::map<std::string, Target> all;
  return all;
}

struct Registered {
  Registered(const char* name, Target target) { targets()[name] = target; }
};

/// One input as messages: each frame is its length in a byte and so many bytes; 255 stands for a
/// frame of all that is left, 254 for the end of a message.
inline std::vector<Frames> messagesOf(const std::uint8_t* data, std::size_t size) {
  constexpr std::uint8_t kEndOfMessage = 254;
  constexpr std::uint8_t kTheRest = 255;
  std::vector<Frames> messages(1);
  for (std::size_t at = 0; at < size;) {
    const std::uint8_t length = data[at++];
    if (length == kEndOfMessage) {
      messages.emplace_back();
      continue;
    }
    const std::size_t left = size - at;
    const std::size_t taken = length == kTheRest || length > left ? left : length;
    messages.back().emplace_back(reinterpret_cast<const char*>(data + at), taken);
    at += taken;
  }
  return messages;
}

inline void runOne(Target target, const std::uint8_t* data, std::size_t size) {
  const std::vector<Frames> messages = messagesOf(data, size);
  for (const Frames& message : messages) {
    if (message.empty()) return;  // there is no message without a frame
  }
  wire() = Wire();
  target(messages);
  wire() = Wire();  // keeps no memory, which would look like a leak
}

/// What a target holds for certain. Ends the process, so that the fuzzer keeps the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

}  // namespace tessel::fuzz

/// Defines a target of that name: TESSEL_FUZZ_TARGET(name) { ... messages ... }
#define TESSEL_FUZZ_TARGET(name)                                                       \
  static void name(const std::vector<::tessel::fuzz::Frames>& messages);               \
  static const ::tessel::fuzz::Registered registered_##name(#name, name); /* NOLINT */ \
  static void name([[maybe_unused]] const std::vector<::tessel::fuzz::Frames>& messages)

#endif
