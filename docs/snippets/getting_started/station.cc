// Publishes a value and keeps it for whoever comes, until Enter is pressed.
//! [station]
#include <tessel/tessel.h>

#include <iostream>

int main(int argc, char** argv) {
  const std::string host = argc > 1 ? argv[1] : "tcp://127.0.0.1";  // endpoints are arguments
  tessel::MessageBroker broker({}, {host + ":9011"}, {host + ":9012"});
  broker.start();

  tessel::Publisher kitchen(broker, "temperature", "kitchen");
  kitchen.publish("21.5", 4);

  std::cout << "Press Enter to end." << std::endl;
  std::cin.get();
}
//! [station]
