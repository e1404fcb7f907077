#ifndef TESSEL_RPC_ERROR_H
#define TESSEL_RPC_ERROR_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessel/export.h"

namespace tessel {

class rpc_error_impl;
class rpc_broker_error_impl;
class rpc_timeout_impl;
class rpc_service_error_impl;
class rpc_custom_error_impl;

/// Any failure of a remote call; the base of the other four. what() is the text given.
///
/// All five can be copied and moved, and not assigned.
class TESSEL_EXPORT rpc_error : public std::runtime_error {
 public:
  /// Says what went wrong.
  ///
  /// @param what the text that what() gives
  rpc_error(const std::string& what);
  /// Says what went wrong.
  ///
  /// @param what the text that what() gives
  rpc_error(const char* what);
  /// Copies.
  ///
  /// @param other the exception to copy
  rpc_error(const rpc_error& other);
  /// Moves.
  ///
  /// @param other the exception to take over
  rpc_error(rpc_error&& other) noexcept;
  /// Not assigned.
  rpc_error& operator=(const rpc_error&) = delete;
  /// Defined in the library, so that all who share it agree on the type.
  virtual ~rpc_error();

 private:
  std::unique_ptr<rpc_error_impl> impl_;
};

/// The broker or the way to it failed: no such service, for one.
class TESSEL_EXPORT rpc_broker_error : public rpc_error {
 public:
  /// Says what went wrong.
  ///
  /// @param what the text that what() gives
  rpc_broker_error(const std::string& what);
  /// Says what went wrong.
  ///
  /// @param what the text that what() gives
  rpc_broker_error(const char* what);
  /// Copies.
  ///
  /// @param other the exception to copy
  rpc_broker_error(const rpc_broker_error& other);
  /// Moves.
  ///
  /// @param other the exception to take over
  rpc_broker_error(rpc_broker_error&& other) noexcept;
  /// Not assigned.
  rpc_broker_error& operator=(const rpc_broker_error&) = delete;
  /// Defined in the library, so that all who share it agree on the type.
  virtual ~rpc_broker_error();

 private:
  std::unique_ptr<rpc_broker_error_impl> impl_;
};

/// No reply in time; what() is "RPC timeout".
class TESSEL_EXPORT rpc_timeout : public rpc_broker_error {
 public:
  /// Says "RPC timeout".
  rpc_timeout();
  /// Copies.
  ///
  /// @param other the exception to copy
  rpc_timeout(const rpc_timeout& other);
  /// Moves.
  ///
  /// @param other the exception to take over
  rpc_timeout(rpc_timeout&& other) noexcept;
  /// Not assigned.
  rpc_timeout& operator=(const rpc_timeout&) = delete;
  /// Defined in the library, so that all who share it agree on the type.
  virtual ~rpc_timeout();

 private:
  std::unique_ptr<rpc_timeout_impl> impl_;
};

/// The service failed; what() is the text of the exception that it threw.
class TESSEL_EXPORT rpc_service_error : public rpc_error {
 public:
  /// Says what went wrong.
  ///
  /// @param what the text that what() gives
  rpc_service_error(const std::string& what);
  /// Says what went wrong.
  ///
  /// @param what the text that what() gives
  rpc_service_error(const char* what);
  /// Copies.
  ///
  /// @param other the exception to copy
  rpc_service_error(const rpc_service_error& other);
  /// Moves.
  ///
  /// @param other the exception to take over
  rpc_service_error(rpc_service_error&& other) noexcept;
  /// Not assigned.
  rpc_service_error& operator=(const rpc_service_error&) = delete;
  /// Defined in the library, so that all who share it agree on the type.
  virtual ~rpc_service_error();

 private:
  std::unique_ptr<rpc_service_error_impl> impl_;
};

/// The service failed and says how in bytes of its own, which reach the caller unchanged; what() is
/// "RPC custom error".
///
/// Constructors from an rvalue take the buffer over where it lies; the others, and copies of the
/// exception, have bytes of their own. They throw std::bad_alloc without memory and
/// std::runtime_error with ZeroMQ's text when ZeroMQ cannot hold the bytes.
class TESSEL_EXPORT rpc_custom_error : public rpc_service_error {
 public:
  /// Copies the bytes.
  ///
  /// @param data the bytes
  /// @param size how many bytes; may be 0
  rpc_custom_error(const void* data, std::size_t size);
  /// Copies the bytes.
  ///
  /// @param data the bytes, without a terminating NUL
  rpc_custom_error(const std::string& data);
  /// Takes the bytes over.
  ///
  /// @param data the bytes
  rpc_custom_error(std::string&& data);
  /// Copies the bytes.
  ///
  /// @param data the bytes
  rpc_custom_error(const std::vector<std::uint8_t>& data);
  /// Takes the bytes over.
  ///
  /// @param data the bytes
  rpc_custom_error(std::vector<std::uint8_t>&& data);
  /// Copies the bytes.
  ///
  /// @param data the bytes
  /// @param size how many bytes
  rpc_custom_error(const std::unique_ptr<std::uint8_t[]>& data, std::size_t size);
  /// Takes the bytes over.
  ///
  /// @param data the bytes
  /// @param size how many bytes
  rpc_custom_error(std::unique_ptr<std::uint8_t[]>&& data, std::size_t size);
  /// For the library's own use: the private object is not visible outside it.
  ///
  /// @param impl the private object
  rpc_custom_error(std::unique_ptr<rpc_custom_error_impl>&& impl);
  /// Copies.
  ///
  /// @param other the exception to copy, with bytes of its own
  rpc_custom_error(const rpc_custom_error& other);
  /// Moves.
  ///
  /// @param other the exception to take over; it has no bytes then
  rpc_custom_error(rpc_custom_error&& other) noexcept;
  /// Not assigned.
  rpc_custom_error& operator=(const rpc_custom_error&) = delete;
  /// Defined in the library, so that all who share it agree on the type.
  virtual ~rpc_custom_error();

  /// The bytes.
  ///
  /// @return where they lie, valid as long as this exception; null after it was moved from
  const void* data() const;
  /// How many bytes.
  ///
  /// @return their number; 0 after it was moved from
  std::size_t size() const;

 private:
  std::unique_ptr<rpc_custom_error_impl> impl_;
};

}  // namespace tessel

#endif
