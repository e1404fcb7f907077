#ifndef TESSEL_TESTS_API_PLUGIN_PLUGIN_H
#define TESSEL_TESTS_API_PLUGIN_PLUGIN_H

// What the plugin of these tests offers. Nothing of the library stands here: a program that unloads
// the library with the plugin has to be built without it.
struct Plugin {
  // Throws the error of that name: "rpc_timeout" and so on.
  void (*throwError)(const char* name);

  // A running message broker. It is all the library's own code and outlives the plugin.
  void* (*openBroker)(const char* pull, const char* updates);
  // Publishes to the broker and calls a service at an endpoint, so that the calling thread has
  // sockets of its own. False when the call had another result than expected.
  bool (*useLibrary)(void* broker, const char* calls);
  void (*closeBroker)(void* broker);
};

// Found by its name.
extern "C" const Plugin* tesselTestPlugin();

#endif
