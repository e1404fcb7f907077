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
    return ServiceKeyView(a.first, a.second) < ServiceKeyView(b.first, b.second);
  }
};

}  // namespace tessel

#endif
