#ifndef TESSEL_TESTS_API_ENDPOINT_KINDS_H
#define TESSEL_TESTS_API_ENDPOINT_KINDS_H

#include <gtest/gtest.h>

#include <string>

#include "support/endpoints.h"

namespace tessel::test {

/// The ways in which two objects of the library reach each other.
enum class EndpointKind { Inproc, Ipc, Tcp };

inline std::string newEndpoint(EndpointKind kind) {
  switch (kind) {
    case EndpointKind::Inproc:
      return uniqueInproc();
    case EndpointKind::Ipc:
      return uniqueIpc();
    case EndpointKind::Tcp:
      break;
  }
  return freeTcp();
}

inline std::string kindName(const ::testing::TestParamInfo<EndpointKind>& info) {
  switch (info.param) {
    case EndpointKind::Inproc:
      return "Inproc";
    case EndpointKind::Ipc:
      return "Ipc";
    case EndpointKind::Tcp:
      break;
  }
  return "Tcp";
}

inline auto everyKind() {
  return ::testing::Values(EndpointKind::Inproc, EndpointKind::Ipc, EndpointKind::Tcp);
}

}  // namespace tessel::test

#endif
