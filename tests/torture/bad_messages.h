#ifndef TESSEL_TESTS_TORTURE_BAD_MESSAGES_H
#define TESSEL_TESTS_TORTURE_BAD_MESSAGES_H

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/raw_peer.h"
#include "support/rpc_peers.h"

namespace tessel::test {

/// What a peer may send that is wrong, as a table; and what it means, read off the message itself
/// and not by the library's readers.

inline Frames joined(Frames front, const Frames& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

/// Collects messages, each once, in the order in which they came first.
class Messages {
 public:
  void add(const Frames& frames) {
    if (!frames.empty() && known_.insert(frames).second) all_.push_back(frames);
  }
  void add(const std::vector<Frames>& messages) {
    for (const Frames& frames : messages) add(frames);
  }
  const std::vector<Frames>& all() const { return all_; }

 private:
  std::set<Frames> known_;
  std::vector<Frames> all_;
};

/// A frame that is empty, short, long or not quite what it was.
inline std::vector<std::string> deformedFrame(const std::string& frame) {
  return {"",
          frame.substr(0, 1),
          frame.substr(0, frame.size() - (frame.empty() ? 0 : 1)),
          frame + "x",
          frame + kNul,
          kNul + frame,
          frame + frame,
          frame + std::string(1000, 'x'),
          std::string(70000, '\xFF')};
}

/// Each frame missing, deformed, twice, with another one in front; cut off behind each frame.
inline void addDeformedFrames(const Frames& good, Messages& messages) {
  for (std::size_t i = 0; i < good.size(); ++i) {
    const auto place = static_cast<std::ptrdiff_t>(i);
    Frames missing = good;
    missing.erase(missing.begin() + place);
    messages.add(missing);
    messages.add(Frames(good.begin(), good.begin() + place));
    for (const std::string& extra : {std::string(), std::string("extra"), good[i]}) {
      Frames more = good;
      more.insert(more.begin() + place, extra);
      messages.add(more);
    }
    for (const std::string& other : deformedFrame(good[i])) {
      Frames deformed = good;
      deformed[i] = other;
      messages.add(deformed);
    }
    for (std::size_t j = 0; j < i; ++j) {
      Frames exchanged = good;
      std::swap(exchanged[i], exchanged[j]);
      messages.add(exchanged);
    }
  }
  for (const std::size_t count : {1U, 2U, 5U, 300U}) {
    messages.add(joined(good, Frames(count, "more")));
    messages.add(joined(good, Frames(count)));
  }
  messages.add(joined(good, good));
}

constexpr std::size_t kSignature = 1;  // places in a message that begins with its delimiter
constexpr std::size_t kType = 2;

inline void addDeformedHeaders(const Frames& good, Messages& messages) {
  for (std::size_t i = 0; i < good[kSignature].size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      Frames changed = good;
      changed[kSignature][i] = static_cast<char>(changed[kSignature][i] ^ (1 << bit));
      messages.add(changed);
    }
  }
  for (const std::size_t size : {0U, 2U, 5U, 8U}) {
    Frames changed = good;
    changed[kType] = std::string(size, good[kType].front());
    messages.add(changed);
    changed[kType] = good[kType] + std::string(size, '\0');
    messages.add(changed);
  }
}

/// With routing frames in front, and without what divides them from the message.
inline void addEnvelopes(const Frames& good, Messages& messages) {
  const Frames undelimited(good.begin() + 1, good.end());
  for (const Frames& envelope :
       {Frames{"route"}, Frames{"route", "further"}, Frames{"nobody"}, Frames{kNul},
        Frames{"route", ""}, Frames{""}, Frames(300, "route"), Frames{std::string(300, 'x')}}) {
    messages.add(joined(envelope, good));
    messages.add(joined(envelope, undelimited));
    messages.add(joined(joined(envelope, undelimited), Frames{""}));
    messages.add(envelope);
  }
}

/// Every type, with more and more body frames.
inline void addTypes(Messages& messages) {
  for (int type = 0; type < 256; ++type) {
    Frames frames = {"", "RS02", std::string(1, static_cast<char>(type))};
    for (int body = 0; body < 4; ++body) {
      messages.add(frames);
      frames.push_back(body % 2 == 0 ? "body" : "");
    }
  }
}

inline std::vector<Frames> goodMessages() {
  return {{"", "RS02", kNul, "r", "service", "instance", "method", "payload"},
          {"", "RS02", "\x01", "r", kNul, "result"},
          {"", "RS02", "\x01", "r", "\x03", "error"},
          {"", "RS02", "\x02", "\x01", "other", "instance"},
          {"", "RS02", "\x02", kNul, "other", "instance"},
          {"", "RS02", "\x03", "topic", "tag", "value", word(1)},
          {"", "RS02", "\x04", "topic", "tag", word(1)}};
}

/// The whole table, from the delimiter on.
inline std::vector<Frames> badMessages() {
  Messages messages;
  for (const Frames& good : goodMessages()) {
    addDeformedFrames(good, messages);
    addDeformedHeaders(good, messages);
    addEnvelopes(good, messages);
    for (const Frames& envelope : {Frames{"route"}, Frames{"route", "further"}}) {
      Messages deformed;
      addDeformedFrames(good, deformed);
      for (const Frames& frames : deformed.all()) messages.add(joined(envelope, frames));
    }
  }
  addTypes(messages);
  for (std::size_t count = 1; count < 12; ++count) {
    messages.add(Frames(count));
    messages.add(Frames(count, "x"));
    messages.add(Frames(count, "RS02"));
  }
  return messages.all();
}

struct Reading {
  Frames envelope;
  int type = 0;
  Frames body;

  Frames undelimited() const {
    return joined(Frames{"RS02", std::string(1, static_cast<char>(type))}, body);
  }
};

/// What a message says from its signature on; nothing when it cannot be told.
inline std::optional<Reading> readingBehindDelimiter(const Frames& frames) {
  if (frames.size() < 3 || frames[0] != "RS02" || frames[1].size() != 1) return std::nullopt;
  Reading reading;
  reading.type = static_cast<unsigned char>(frames[1][0]);
  reading.body.assign(frames.begin() + 2, frames.end());
  return reading;
}

/// The same of one that begins with an envelope and its delimiter.
inline std::optional<Reading> readingOf(const Frames& frames) {
  const auto delimiter = std::find(frames.begin(), frames.end(), "");
  if (delimiter == frames.end()) return std::nullopt;
  std::optional<Reading> reading = readingBehindDelimiter(Frames(delimiter + 1, frames.end()));
  if (reading.has_value()) reading->envelope.assign(frames.begin(), delimiter);
  return reading;
}

inline int firstByteOf(const std::string& frame) {
  return frame.empty() ? 0 : static_cast<unsigned char>(frame.front());
}

inline unsigned long long wordOf(const std::string& frame) {
  unsigned long long value = 0;
  for (std::size_t i = 0; i < 8 && i < frame.size(); ++i) {
    value |= static_cast<unsigned long long>(static_cast<unsigned char>(frame[i])) << (8 * i);
  }
  return value;
}

}  // namespace tessel::test

#endif
