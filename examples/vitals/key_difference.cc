#include "key_difference.h"

#include <algorithm>
#include <iterator>

namespace vitals {
namespace {

KeySet without(const KeySet& from, const KeySet& what) {
  KeySet rest;
  std::set_difference(from.begin(), from.end(), what.begin(), what.end(),
                      std::inserter(rest, rest.end()));
  return rest;
}

}  // namespace

KeyDifference compareKeys(const KeySet& published, const KeySet& received) {
  return {without(published, received), without(received, published)};
}

}  // namespace vitals
