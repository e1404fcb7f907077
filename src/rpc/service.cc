#include "tessel/service.h"

namespace tessel {

class ServiceImpl {
 public:
  ServiceImpl(const std::string& service, const std::string& instance)
      : serviceName(service), instanceName(instance) {}

  const std::string serviceName;
  const std::string instanceName;
};

Service::Service(const std::string& serviceName, const std::string& instanceName)
    : impl_(std::make_unique<ServiceImpl>(serviceName, instanceName)) {}

Service::~Service() = default;

const std::string& Service::getServiceName() const { return impl_->serviceName; }

const std::string& Service::getInstanceName() const { return impl_->instanceName; }

}  // namespace tessel
