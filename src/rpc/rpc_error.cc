#include "tessel/rpc_error.h"

#include <utility>

#include "rpc/rpc_error_impl.h"

namespace tessel {
namespace {

const char* const kTimeoutText = "RPC timeout";
const char* const kCustomErrorText = "RPC custom error";

template <typename... Arguments>
std::unique_ptr<rpc_custom_error_impl> makePayload(Arguments&&... arguments) {
  return std::make_unique<rpc_custom_error_impl>(ZmqFrame(std::forward<Arguments>(arguments)...));
}

std::unique_ptr<rpc_custom_error_impl> copyPayload(const rpc_custom_error& error) {
  return makePayload(error.data(), error.size());
}

}  // namespace

rpc_error::rpc_error(const std::string& what)
    : std::runtime_error(what), impl_(std::make_unique<rpc_error_impl>()) {}
rpc_error::rpc_error(const char* what)
    : std::runtime_error(what), impl_(std::make_unique<rpc_error_impl>()) {}
rpc_error::rpc_error(const rpc_error& other)
    : std::runtime_error(other), impl_(std::make_unique<rpc_error_impl>()) {}
rpc_error::rpc_error(rpc_error&& other) noexcept = default;
rpc_error::~rpc_error() = default;

rpc_broker_error::rpc_broker_error(const std::string& what)
    : rpc_error(what), impl_(std::make_unique<rpc_broker_error_impl>()) {}
rpc_broker_error::rpc_broker_error(const char* what)
    : rpc_error(what), impl_(std::make_unique<rpc_broker_error_impl>()) {}
rpc_broker_error::rpc_broker_error(const rpc_broker_error& other)
    : rpc_error(other), impl_(std::make_unique<rpc_broker_error_impl>()) {}
rpc_broker_error::rpc_broker_error(rpc_broker_error&& other) noexcept = default;
rpc_broker_error::~rpc_broker_error() = default;

rpc_timeout::rpc_timeout()
    : rpc_broker_error(kTimeoutText), impl_(std::make_unique<rpc_timeout_impl>()) {}
rpc_timeout::rpc_timeout(const rpc_timeout& other)
    : rpc_broker_error(other), impl_(std::make_unique<rpc_timeout_impl>()) {}
rpc_timeout::rpc_timeout(rpc_timeout&& other) noexcept = default;
rpc_timeout::~rpc_timeout() = default;

rpc_service_error::rpc_service_error(const std::string& what)
    : rpc_error(what), impl_(std::make_unique<rpc_service_error_impl>()) {}
rpc_service_error::rpc_service_error(const char* what)
    : rpc_error(what), impl_(std::make_unique<rpc_service_error_impl>()) {}
rpc_service_error::rpc_service_error(const rpc_service_error& other)
    : rpc_error(other), impl_(std::make_unique<rpc_service_error_impl>()) {}
rpc_service_error::rpc_service_error(rpc_service_error&& other) noexcept = default;
rpc_service_error::~rpc_service_error() = default;

rpc_custom_error::rpc_custom_error(const void* data, std::size_t size)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(data, size)) {}
rpc_custom_error::rpc_custom_error(const std::string& data)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(data)) {}
rpc_custom_error::rpc_custom_error(std::string&& data)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(std::move(data))) {}
rpc_custom_error::rpc_custom_error(const std::vector<std::uint8_t>& data)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(data)) {}
rpc_custom_error::rpc_custom_error(std::vector<std::uint8_t>&& data)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(std::move(data))) {}
rpc_custom_error::rpc_custom_error(const std::unique_ptr<std::uint8_t[]>& data, std::size_t size)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(data, size)) {}
rpc_custom_error::rpc_custom_error(std::unique_ptr<std::uint8_t[]>&& data, std::size_t size)
    : rpc_service_error(kCustomErrorText), impl_(makePayload(std::move(data), size)) {}
rpc_custom_error::rpc_custom_error(std::unique_ptr<rpc_custom_error_impl>&& impl)
    : rpc_service_error(kCustomErrorText), impl_(std::move(impl)) {}
rpc_custom_error::rpc_custom_error(const rpc_custom_error& other)
    : rpc_service_error(other), impl_(copyPayload(other)) {}
rpc_custom_error::rpc_custom_error(rpc_custom_error&& other) noexcept = default;
rpc_custom_error::~rpc_custom_error() = default;

const void* rpc_custom_error::data() const {
  return impl_ == nullptr ? nullptr : std::as_const(impl_->payload).data();
}

std::size_t rpc_custom_error::size() const { return impl_ == nullptr ? 0 : impl_->payload.size(); }

}  // namespace tessel
