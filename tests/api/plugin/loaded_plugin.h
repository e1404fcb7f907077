#ifndef TESSEL_TESTS_API_PLUGIN_LOADED_PLUGIN_H
#define TESSEL_TESTS_API_PLUGIN_LOADED_PLUGIN_H

#include <dlfcn.h>

#include <stdexcept>

#include "plugin.h"

/// The plugin while it is loaded; the build says where its file is.
class LoadedPlugin {
 public:
  LoadedPlugin() : library_(dlopen(TESSEL_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) throw std::runtime_error(dlerror());
    const auto find = reinterpret_cast<const Plugin* (*)()>(dlsym(library_, "tesselTestPlugin"));
    if (find == nullptr) throw std::runtime_error(dlerror());
    plugin_ = find();
  }
  ~LoadedPlugin() { dlclose(library_); }
  LoadedPlugin(const LoadedPlugin&) = delete;
  LoadedPlugin& operator=(const LoadedPlugin&) = delete;

  const Plugin* operator->() const { return plugin_; }

  /// Whether anybody has it loaded.
  static bool anywhere() {
    void* library = dlopen(TESSEL_TEST_PLUGIN, RTLD_LAZY | RTLD_NOLOAD);
    if (library != nullptr) dlclose(library);
    return library != nullptr;
  }

 private:
  void* library_;
  const Plugin* plugin_;
};

#endif
