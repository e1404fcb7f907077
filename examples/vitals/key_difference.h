#ifndef VITALS_KEY_DIFFERENCE_H
#define VITALS_KEY_DIFFERENCE_H

#include <set>
#include <string>

namespace vitals {

using KeySet = std::set<std::string>;

/// How what a late joiner got differs from what was there.
struct KeyDifference {
  KeySet missing;     ///< Published before it came, but it did not get them.
  KeySet unexpected;  ///< It got them, but they were not published.
  bool none() const { return missing.empty() && unexpected.empty(); }
};

KeyDifference compareKeys(const KeySet& published, const KeySet& received);

}  // namespace vitals

#endif
