#include "rpc/service_call.h"

#include <cstring>
#include <exception>

#include "messages/message_reply.h"
#include "tessel/rpc_error.h"

namespace tessel {
namespace {

const char* const kUnknownException = "unknown exception";

}  // namespace

const char* const kServiceNotFound = "service not found";

std::string serviceNotFoundText(const std::string& service, const std::string& instance) {
  return std::string(kServiceNotFound) + ": " + service + " - " + instance;
}

std::size_t observedSize(const char* text) { return std::strlen(text) + 1; }

void ServiceCall::run(Service& target, std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize,
                      const std::function<void()>& finish) const {
  try {
    for (const auto& observer : observers) {
      observer->onRequest(service, instance, method, data, size);
    }
    target.callMethod(method, data, size, out, outSize);
    tellReply(kReplySuccess, out.get(), outSize);
    finish();
  } catch (const rpc_custom_error& error) {
    tellFailure(kReplyCustomError, error.data(), error.size());
    throw;
  } catch (const std::exception& error) {
    tellFailure(kReplyServiceError, error.what(), observedSize(error.what()));
    throw rpc_service_error(error.what());
  } catch (...) {
    tellFailure(kReplyServiceError, kUnknownException, observedSize(kUnknownException));
    throw rpc_service_error(kUnknownException);
  }
}

void ServiceCall::tellNotFound() const {
  tellFailure(kReplyBrokerError, kServiceNotFound, observedSize(kServiceNotFound));
}

void ServiceCall::tellReply(int status, const void* bytes, std::size_t count) const {
  for (const auto& observer : observers) {
    observer->onReply(service, instance, method, status, bytes, count);
  }
}

void ServiceCall::tellFailure(int status, const void* bytes, std::size_t count) const {
  for (const auto& observer : observers) {
    try {
      observer->onReply(service, instance, method, status, bytes, count);
    } catch (...) {  // the others are told, and the caller is answered, all the same
    }
  }
}

}  // namespace tessel
