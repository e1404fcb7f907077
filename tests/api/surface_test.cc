// What programs are compiled against: a failing line here means that they would have to change, or
// be built anew. Most of it holds or fails at compile time.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tessel/tessel.h"

namespace tessel {
namespace {

using Strings = std::vector<std::string>;
using Bytes = std::vector<std::uint8_t>;
using Buffer = std::unique_ptr<std::uint8_t[]>;
using Text = const std::string&;

// Whether a T can be made without naming it: T value = {arguments...}.
template <typename T>
void takes(const T&);
template <typename T, typename = void, typename... Arguments>
struct MadeFrom : std::false_type {};
template <typename T, typename... Arguments>
struct MadeFrom<T, decltype(takes<T>({std::declval<Arguments>()...})), Arguments...>
    : std::true_type {};
template <typename T, typename... Arguments>
constexpr bool madeFrom() {
  return MadeFrom<T, void, Arguments...>::value;
}

template <typename T>
constexpr bool staysInPlace() {
  return !std::is_copy_constructible<T>::value && !std::is_move_constructible<T>::value &&
         !std::is_copy_assignable<T>::value && !std::is_move_assignable<T>::value;
}

template <typename Expected, typename Actual>
constexpr bool same(Actual) {
  return std::is_same<Expected, Actual>::value;
}

// Callbacks of the subscribers are protected; a derived class may name them.
struct OpenSubscriber : Subscriber {
  using Subscriber::onDeletion;
  using Subscriber::onValue;
  using Subscriber::Subscriber;
};
struct OpenMultiSubscriber : MultiSubscriber {
  using MultiSubscriber::MultiSubscriber;
  using MultiSubscriber::onDeletion;
  using MultiSubscriber::onValue;
};

// ---- MessageBroker

static_assert(madeFrom<MessageBroker>(), "every endpoint has a default");
static_assert(madeFrom<MessageBroker, Strings>(), "");
static_assert(madeFrom<MessageBroker, Strings, Strings>(), "");
static_assert(madeFrom<MessageBroker, Strings, Strings, Strings>(), "");
static_assert(std::has_virtual_destructor<MessageBroker>::value, "");
static_assert(staysInPlace<MessageBroker>(), "");
static_assert(same<void (MessageBroker::*)()>(&MessageBroker::start), "");
static_assert(same<void (MessageBroker::*)(bool, bool)>(&MessageBroker::stop), "");
static_assert(same<std::string (MessageBroker::*)() const>(&MessageBroker::getInprocPullTransport),
              "");
using Observe = void (MessageBroker::*)(const std::shared_ptr<MessageBrokerObserver>&);
static_assert(same<Observe>(&MessageBroker::attach), "");
static_assert(same<Observe>(&MessageBroker::detach), "");
static_assert(std::is_void<decltype(std::declval<MessageBroker&>().stop())>::value, "");
static_assert(std::is_void<decltype(std::declval<MessageBroker&>().stop(true))>::value, "");

static_assert(std::is_abstract<MessageBrokerObserver>::value, "");
static_assert(std::has_virtual_destructor<MessageBrokerObserver>::value, "");
static_assert(
    same<void (MessageBrokerObserver::*)(Text, Text)>(&MessageBrokerObserver::onSubscribe), "");
static_assert(
    same<void (MessageBrokerObserver::*)(Text, Text)>(&MessageBrokerObserver::onUnsubscribe), "");
static_assert(same<void (MessageBrokerObserver::*)(Text, Text, bool, bool, bool)>(
                  &MessageBrokerObserver::onPublish),
              "");
static_assert(same<void (MessageBrokerObserver::*)(Text, Text, bool, bool, bool)>(
                  &MessageBrokerObserver::onUnpublish),
              "");

// ---- Publisher

static_assert(madeFrom<Publisher, const char*, const char*>(), "");
static_assert(madeFrom<Publisher, Strings, const char*, const char*>(), "");
static_assert(madeFrom<Publisher, MessageBroker&, const char*, const char*>(), "");
static_assert(madeFrom<Publisher, const MessageBroker&, const char*, const char*>(), "");
static_assert(!std::is_default_constructible<Publisher>::value, "");
static_assert(std::has_virtual_destructor<Publisher>::value, "");
static_assert(staysInPlace<Publisher>(), "");
static_assert(same<void (Publisher::*)(const void*, std::size_t) const>(&Publisher::publish), "");
static_assert(same<void (Publisher::*)() const>(&Publisher::unpublish), "");
static_assert(same<void (Publisher::*)()>(&Publisher::removeFromCache), "");
using Switch = void (Publisher::*)(bool);
using IsOn = bool (Publisher::*)() const;
static_assert(same<Switch>(&Publisher::enableCache), "");
static_assert(same<IsOn>(&Publisher::isCacheEnabled), "");
static_assert(same<Switch>(&Publisher::enablePublishIfEqual), "");
static_assert(same<IsOn>(&Publisher::isPublishIfEqualEnabled), "");
static_assert(same<Switch>(&Publisher::enableClearCacheOnDestruction), "");
static_assert(same<IsOn>(&Publisher::isClearCacheOnDestructionEnabled), "");
static_assert(same<Switch>(&Publisher::enableUnpublishOnDestruction), "");
static_assert(same<IsOn>(&Publisher::isUnpublishOnDestructionEnabled), "");
static_assert(same<Text (Publisher::*)() const>(&Publisher::getTopic), "");
static_assert(same<Text (Publisher::*)() const>(&Publisher::getTag), "");
static_assert(same<void (*)(const Strings&)>(
                  static_cast<void (*)(const Strings&)>(&Publisher::setDefaultBroker)),
              "");
static_assert(same<void (*)(const MessageBroker&)>(
                  static_cast<void (*)(const MessageBroker&)>(&Publisher::setDefaultBroker)),
              "");

// ---- Subscriber, MultiSubscriber

static_assert(std::is_same<std::underlying_type<SubscriptionMode>::type, std::int32_t>::value, "");
static_assert(!std::is_convertible<SubscriptionMode, std::int32_t>::value, "a scoped enumeration");
static_assert(static_cast<std::int32_t>(SubscriptionMode::Once) == 0, "");
static_assert(static_cast<std::int32_t>(SubscriptionMode::NewValues) == 1, "");
static_assert(static_cast<std::int32_t>(SubscriptionMode::AllValues) == 2, "");

static_assert(madeFrom<Subscriber, SubscriptionMode, const char*, const char*>(), "");
static_assert(!std::is_abstract<Subscriber>::value, "the callbacks have empty bodies");
static_assert(std::has_virtual_destructor<Subscriber>::value, "");
static_assert(staysInPlace<Subscriber>(), "");
static_assert(same<SubscriptionMode (Subscriber::*)() const>(&Subscriber::getMode), "");
static_assert(same<Text (Subscriber::*)() const>(&Subscriber::getTopic), "");
static_assert(same<Text (Subscriber::*)() const>(&Subscriber::getTag), "");
static_assert(same<void (Subscriber::*)(const void*, std::size_t)>(&OpenSubscriber::onValue), "");
static_assert(same<void (Subscriber::*)()>(&OpenSubscriber::onDeletion), "");

static_assert(madeFrom<MultiSubscriber, const char*>(), "");
static_assert(madeFrom<MultiSubscriber, const char*, const char*>(), "");
static_assert(!std::is_abstract<MultiSubscriber>::value, "the callbacks have empty bodies");
static_assert(std::has_virtual_destructor<MultiSubscriber>::value, "");
static_assert(staysInPlace<MultiSubscriber>(), "");
static_assert(same<void (MultiSubscriber::*)(Text, Text, const void*, std::size_t)>(
                  &OpenMultiSubscriber::onValue),
              "");
static_assert(same<void (MultiSubscriber::*)(Text, Text)>(&OpenMultiSubscriber::onDeletion), "");

// ---- MessageDispatcher

static_assert(madeFrom<MessageDispatcher>(), "both endpoints have a default");
static_assert(madeFrom<MessageDispatcher, const char*>(), "");
static_assert(madeFrom<MessageDispatcher, const char*, const char*>(), "");
static_assert(madeFrom<MessageDispatcher, const char*, const char*, std::size_t>(), "");
static_assert(!std::is_polymorphic<MessageDispatcher>::value, "nobody derives from it");
static_assert(staysInPlace<MessageDispatcher>(), "");
template <typename T>
using Register = void (MessageDispatcher::*)(const std::shared_ptr<T>&);
template <typename T>
constexpr bool registers() {
  return same<Register<T>>(static_cast<Register<T>>(&MessageDispatcher::registerSubscriber)) &&
         same<Register<T>>(static_cast<Register<T>>(&MessageDispatcher::unregisterSubscriber));
}
static_assert(registers<Subscriber>(), "");
static_assert(registers<MultiSubscriber>(), "");
static_assert(same<void (MessageDispatcher::*)()>(&MessageDispatcher::start), "");
static_assert(same<void (MessageDispatcher::*)(bool)>(&MessageDispatcher::stop), "");
static_assert(std::is_void<decltype(std::declval<MessageDispatcher&>().stop())>::value, "");

// ---- Service

using CallMethod = void (Service::*)(Text, const void*, std::size_t, Buffer&, std::size_t&);
static_assert(std::is_abstract<Service>::value, "");
static_assert(std::has_virtual_destructor<Service>::value, "");
static_assert(staysInPlace<Service>(), "");
static_assert(same<CallMethod>(&Service::callMethod), "");
static_assert(same<Text (Service::*)() const>(&Service::getServiceName), "");
static_assert(same<Text (Service::*)() const>(&Service::getInstanceName), "");
struct SomeService : Service {
  using Service::Service;
  void callMethod(Text, const void*, std::size_t, Buffer&, std::size_t&) override {}
};
static_assert(madeFrom<SomeService, const char*, const char*>(), "");

// ---- RpcRequest, RpcDispatcher, ThreadedRpcDispatcher

static_assert(std::is_abstract<RpcRequest>::value, "");
static_assert(std::has_virtual_destructor<RpcRequest>::value, "");
static_assert(same<std::string (RpcRequest::*)() const>(&RpcRequest::getServiceName), "");
static_assert(same<std::string (RpcRequest::*)() const>(&RpcRequest::getInstanceName), "");
static_assert(same<std::string (RpcRequest::*)() const>(&RpcRequest::getMethodName), "");
static_assert(same<void (RpcRequest::*)()>(&RpcRequest::execute), "");

static_assert(std::is_abstract<RpcDispatcher>::value, "");
static_assert(std::has_virtual_destructor<RpcDispatcher>::value, "");
static_assert(same<void (RpcDispatcher::*)()>(&RpcDispatcher::start), "");
static_assert(same<void (RpcDispatcher::*)()>(&RpcDispatcher::stop), "");
static_assert(same<void (RpcDispatcher::*)(std::shared_ptr<RpcRequest>)>(&RpcDispatcher::submit),
              "");

static_assert(std::is_base_of<RpcDispatcher, ThreadedRpcDispatcher>::value, "");
static_assert(madeFrom<ThreadedRpcDispatcher>(), "the number of threads has a default");
static_assert(madeFrom<ThreadedRpcDispatcher, std::size_t>(), "");
static_assert(!std::is_abstract<ThreadedRpcDispatcher>::value, "");
static_assert(staysInPlace<ThreadedRpcDispatcher>(), "");

// ---- RpcBroker

static_assert(madeFrom<RpcBroker, bool, Strings, std::shared_ptr<ThreadedRpcDispatcher>>(), "");
static_assert(!std::is_default_constructible<RpcBroker>::value, "");
static_assert(std::has_virtual_destructor<RpcBroker>::value, "");
static_assert(staysInPlace<RpcBroker>(), "");
static_assert(same<void (RpcBroker::*)()>(&RpcBroker::start), "");
static_assert(same<void (RpcBroker::*)(bool, bool)>(&RpcBroker::stop), "");
static_assert(std::is_void<decltype(std::declval<RpcBroker&>().stop())>::value, "");
static_assert(std::is_void<decltype(std::declval<RpcBroker&>().stop(true))>::value, "");
using Offer = void (RpcBroker::*)(const std::shared_ptr<Service>&);
static_assert(same<Offer>(&RpcBroker::registerService), "");
static_assert(same<Offer>(&RpcBroker::unregisterService), "");
using Watch = void (RpcBroker::*)(const std::shared_ptr<RpcBrokerObserver>&);
static_assert(same<Watch>(&RpcBroker::attach), "");
static_assert(same<Watch>(&RpcBroker::detach), "");

static_assert(std::is_abstract<RpcBrokerObserver>::value, "");
static_assert(std::has_virtual_destructor<RpcBrokerObserver>::value, "");
using OnService = void (RpcBrokerObserver::*)(Text, Text, bool, const Bytes&);
static_assert(same<OnService>(&RpcBrokerObserver::onServiceRegistered), "");
static_assert(same<OnService>(&RpcBrokerObserver::onServiceUnregistered), "");
static_assert(same<void (RpcBrokerObserver::*)(Text, Text, Text, const void*, std::size_t)>(
                  &RpcBrokerObserver::onRequest),
              "");
static_assert(same<void (RpcBrokerObserver::*)(Text, Text, Text, int, const void*, std::size_t)>(
                  &RpcBrokerObserver::onReply),
              "");

// ---- RpcClient

using Milliseconds = std::chrono::milliseconds;
static_assert(madeFrom<RpcClient, const char*, Milliseconds>(), "");
static_assert(madeFrom<RpcClient, std::shared_ptr<RpcBroker>, Milliseconds>(), "");
static_assert(madeFrom<RpcClient, const char*, std::chrono::seconds>(), "");
static_assert(!madeFrom<RpcClient, const char*, int>(), "a time-out has a unit");
static_assert(std::has_virtual_destructor<RpcClient>::value, "");
static_assert(staysInPlace<RpcClient>(), "");
static_assert(same<void (RpcClient::*)(Text, Text, Text, const void*, std::size_t, Buffer&,
                                       std::size_t&)>(&RpcClient::CallMethod),
              "");
static_assert(same<Milliseconds (RpcClient::*)() const>(&RpcClient::receiveTimeout), "");
static_assert(same<void (RpcClient::*)(const Milliseconds&)>(&RpcClient::setReceiveTimeout), "");

// ---- The errors

template <typename Error>
constexpr bool copiesAndMoves() {
  return std::is_copy_constructible<Error>::value &&
         std::is_nothrow_move_constructible<Error>::value &&
         !std::is_copy_assignable<Error>::value && !std::is_move_assignable<Error>::value &&
         std::has_virtual_destructor<Error>::value;
}
static_assert(copiesAndMoves<rpc_error>(), "");
static_assert(copiesAndMoves<rpc_broker_error>(), "");
static_assert(copiesAndMoves<rpc_timeout>(), "");
static_assert(copiesAndMoves<rpc_service_error>(), "");
static_assert(copiesAndMoves<rpc_custom_error>(), "");

static_assert(std::is_base_of<std::runtime_error, rpc_error>::value, "");
static_assert(std::is_base_of<rpc_error, rpc_broker_error>::value, "");
static_assert(std::is_base_of<rpc_broker_error, rpc_timeout>::value, "");
static_assert(std::is_base_of<rpc_error, rpc_service_error>::value, "");
static_assert(std::is_base_of<rpc_service_error, rpc_custom_error>::value, "");
static_assert(!std::is_base_of<rpc_broker_error, rpc_service_error>::value, "");

template <typename Error>
constexpr bool takesText() {
  return madeFrom<Error, Text>() && madeFrom<Error, const char*>() &&
         !std::is_default_constructible<Error>::value;
}
static_assert(takesText<rpc_error>(), "");
static_assert(takesText<rpc_broker_error>(), "");
static_assert(takesText<rpc_service_error>(), "");
static_assert(madeFrom<rpc_timeout>(), "");
static_assert(!madeFrom<rpc_timeout, const char*>(), "its text is always the same");

static_assert(madeFrom<rpc_custom_error, const void*, std::size_t>(), "");
static_assert(madeFrom<rpc_custom_error, const std::string&>(), "");
static_assert(madeFrom<rpc_custom_error, std::string>(), "");
static_assert(madeFrom<rpc_custom_error, const Bytes&>(), "");
static_assert(madeFrom<rpc_custom_error, Bytes>(), "");
static_assert(madeFrom<rpc_custom_error, const Buffer&, std::size_t>(), "");
static_assert(madeFrom<rpc_custom_error, Buffer, std::size_t>(), "");
static_assert(madeFrom<rpc_custom_error, std::unique_ptr<rpc_custom_error_impl>>(), "");
static_assert(!std::is_default_constructible<rpc_custom_error>::value, "");
static_assert(same<const void* (rpc_custom_error::*)() const>(&rpc_custom_error::data), "");
static_assert(same<std::size_t (rpc_custom_error::*)() const>(&rpc_custom_error::size), "");

// ---- Layout: one owning pointer, behind the pointer to the virtual functions where there are any

static_assert(sizeof(MessageBroker) == 2 * sizeof(void*), "");
static_assert(sizeof(MessageBrokerObserver) == sizeof(void*), "");
static_assert(sizeof(Publisher) == 2 * sizeof(void*), "");
static_assert(sizeof(Subscriber) == 2 * sizeof(void*), "");
static_assert(sizeof(MultiSubscriber) == 2 * sizeof(void*), "");
static_assert(sizeof(MessageDispatcher) == sizeof(void*), "");
static_assert(sizeof(Service) == 2 * sizeof(void*), "");
static_assert(sizeof(RpcRequest) == sizeof(void*), "");
static_assert(sizeof(RpcDispatcher) == sizeof(void*), "");
static_assert(sizeof(ThreadedRpcDispatcher) == 2 * sizeof(void*), "");
static_assert(sizeof(RpcBroker) == 2 * sizeof(void*), "");
static_assert(sizeof(RpcBrokerObserver) == sizeof(void*), "");
static_assert(sizeof(RpcClient) == 2 * sizeof(void*), "");
static_assert(sizeof(rpc_error) == sizeof(std::runtime_error) + sizeof(void*), "");
static_assert(sizeof(rpc_broker_error) == sizeof(rpc_error) + sizeof(void*), "");
static_assert(sizeof(rpc_timeout) == sizeof(rpc_broker_error) + sizeof(void*), "");
static_assert(sizeof(rpc_service_error) == sizeof(rpc_error) + sizeof(void*), "");
static_assert(sizeof(rpc_custom_error) == sizeof(rpc_service_error) + sizeof(void*), "");

#if defined(__x86_64__) && !defined(_WIN32)
// The place of a virtual function among those of its class. On this platform a pointer to it holds
// the distance in bytes plus one; the destructor takes the first two places.
template <typename Function>
std::size_t slot(Function function) {
  std::size_t distance = 0;
  static_assert(sizeof function >= sizeof distance, "");
  std::memcpy(&distance, &function, sizeof distance);
  return (distance - 1) / sizeof(void*);
}

TEST(Surface, VirtualFunctionsKeepTheirPlaces) {
  EXPECT_EQ(slot(&MessageBrokerObserver::onSubscribe), 2U);
  EXPECT_EQ(slot(&MessageBrokerObserver::onUnsubscribe), 3U);
  EXPECT_EQ(slot(&MessageBrokerObserver::onPublish), 4U);
  EXPECT_EQ(slot(&MessageBrokerObserver::onUnpublish), 5U);
  EXPECT_EQ(slot(&OpenSubscriber::onValue), 2U);
  EXPECT_EQ(slot(&OpenSubscriber::onDeletion), 3U);
  EXPECT_EQ(slot(&OpenMultiSubscriber::onValue), 2U);
  EXPECT_EQ(slot(&OpenMultiSubscriber::onDeletion), 3U);
  EXPECT_EQ(slot(&Service::callMethod), 2U);
  EXPECT_EQ(slot(&RpcRequest::getServiceName), 2U);
  EXPECT_EQ(slot(&RpcRequest::getInstanceName), 3U);
  EXPECT_EQ(slot(&RpcRequest::getMethodName), 4U);
  EXPECT_EQ(slot(&RpcRequest::execute), 5U);
  EXPECT_EQ(slot(&RpcDispatcher::start), 2U);
  EXPECT_EQ(slot(&RpcDispatcher::stop), 3U);
  EXPECT_EQ(slot(&RpcDispatcher::submit), 4U);
  EXPECT_EQ(slot(&RpcBrokerObserver::onServiceRegistered), 2U);
  EXPECT_EQ(slot(&RpcBrokerObserver::onServiceUnregistered), 3U);
  EXPECT_EQ(slot(&RpcBrokerObserver::onRequest), 4U);
  EXPECT_EQ(slot(&RpcBrokerObserver::onReply), 5U);
}
#endif

TEST(Surface, TheVersionIsMadeOfItsThreeNumbers) {
  EXPECT_EQ(std::string(TESSEL_VERSION), std::to_string(TESSEL_VERSION_MAJOR) + "." +
                                             std::to_string(TESSEL_VERSION_MINOR) + "." +
                                             std::to_string(TESSEL_VERSION_PATCH));
}

TEST(Surface, CallbacksThatAreNotOverriddenDoNothing) {
  OpenSubscriber subscriber(SubscriptionMode::Once, "topic", "tag");
  OpenMultiSubscriber multi("topic");
  EXPECT_NO_THROW(subscriber.onValue("value", 5));
  EXPECT_NO_THROW(subscriber.onDeletion());
  EXPECT_NO_THROW(multi.onValue("topic", "tag", "value", 5));
  EXPECT_NO_THROW(multi.onDeletion("topic", "tag"));
}

}  // namespace
}  // namespace tessel
