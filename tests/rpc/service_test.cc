#include <gtest/gtest.h>
#include <tessel/service.h>

#include <memory>
#include <string>
#include <type_traits>

#include "support/rpc_peers.h"

namespace tessel::test {
namespace {

static_assert(std::is_abstract<Service>::value, "the application brings the methods");
static_assert(std::has_virtual_destructor<Service>::value, "held polymorphically");
static_assert(!std::is_copy_constructible<Service>::value, "one object, one registration");
static_assert(!std::is_copy_assignable<Service>::value, "one object, one registration");

TEST(Service, HasTheNamesItWasGiven) {
  const auto service = answering("speed", "left wheel", "");
  EXPECT_EQ(service->getServiceName(), "speed");
  EXPECT_EQ(service->getInstanceName(), "left wheel");
}

TEST(Service, MayHaveEmptyNames) {
  const auto service = answering("", "", "");
  EXPECT_EQ(service->getServiceName(), "");
  EXPECT_EQ(service->getInstanceName(), "");
}

TEST(Service, MayHaveAnyBytesInItsNames) {
  const std::string odd = bytes("a\0:\xFF\n", 5);
  const auto service = answering(odd, odd + odd, "");
  EXPECT_EQ(service->getServiceName(), odd);
  EXPECT_EQ(service->getInstanceName(), odd + odd);
}

TEST(Service, CopiesItsNames) {
  std::string service = "service";
  std::string instance = "instance";
  const auto made = answering(service, instance, "");
  service = "changed";
  instance = "changed";
  EXPECT_EQ(made->getServiceName(), "service");
  EXPECT_EQ(made->getInstanceName(), "instance");
}

TEST(Service, GivesItsNamesByReference) {
  const auto service = answering("service", "instance", "");
  EXPECT_EQ(&service->getServiceName(), &service->getServiceName());
  EXPECT_EQ(&service->getInstanceName(), &service->getInstanceName());
}

TEST(Service, IsDestroyedAsWhatItIs) {
  struct Derived : FunctionService {
    explicit Derived(bool& flag) : FunctionService("s", "i", nullptr), destroyed(flag) {}
    ~Derived() override { destroyed = true; }
    bool& destroyed;
  };
  bool destroyed = false;
  std::unique_ptr<Service> service = std::make_unique<Derived>(destroyed);
  service.reset();
  EXPECT_TRUE(destroyed);
}

}  // namespace
}  // namespace tessel::test
