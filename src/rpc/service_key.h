#ifndef TESSEL_SRC_RPC_SERVICE_KEY_H
#define TESSEL_SRC_RPC_SERVICE_KEY_H

#include <string>
#include <string_view>
#include <utility>

namespace tessel {

/// What a service is registered under: service name, instance name.
using ServiceKey = std::pair<std::string, std::string>;
/// The same, to look one up with.
using ServiceKeyView = std::pair<std::string_view, std::string_view>;

/// Orders by service name, then by instance name; takes either form.
struct ServiceKeyLess {
  using is_transparent = void;
  template <typename A, typename B>
  bool operator()(const A& a, const B& b) const {
    // Each name compared once: a pair's own operator compares names that differ or are equal twice.
    const int byService = std::string_view(a.first).compare(b.first);
    return byService != 0 ? byService < 0 : std::string_view(a.second).compare(b.second) < 0;
  }
};

}  // namespace tessel

#endif
