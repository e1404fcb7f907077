#include "options.h"

#include <cstdio>
#include <stdexcept>

namespace vitals {

const char kHelp[] = R"(vitals: the vital signs of this machine, live, through three processes

  vitals [--seconds N | --watch] [--default-ports | --ports PULL,UPDATES,CACHE,CALLS]

starts a hub, which owns the brokers, and a sensor, which publishes what it reads in /proc. Seconds
later a viewer joins. It gets the last value of everything at once, shows what changes, calls the
sensor for the processes of the machine, and ends with a summary. The exit status is 0 if nothing
was missed, every answer and every provoked error was the right one, and no process failed.

  --seconds N        end after N seconds (10)
  --watch            go on until Ctrl-C
  --ports P,U,C,A    listen on these ports of 127.0.0.1 instead of free ones
  --default-ports    the same as --ports 9010,9011,9012,9020

Each of the three can be started by hand too, in a terminal of its own, in any order:

  vitals hub         [--ports P,U,C,A]
  vitals sensor      [--ports P,U,C,A]
  vitals viewer      [--ports P,U,C,A] [--seconds N]

They use ports 9010, 9011, 9012 and 9020 and end with Ctrl-C; a viewer also ends with the sensor.
Colours are left out when NO_COLOR is set; when the output is no terminal, a line a second is shown.
)";

namespace {

Ports parsePorts(const std::string& text) {
  Ports ports;
  char rest = 0;
  const int fields = std::sscanf(text.c_str(), "%5d,%5d,%5d,%5d%c", &ports.pull, &ports.updates,
                                 &ports.cache, &ports.calls, &rest);
  for (const int port : {ports.pull, ports.updates, ports.cache, ports.calls}) {
    if (fields != 4 || port < 1 || port > 65535) {
      throw std::invalid_argument("--ports takes four port numbers, such as 9010,9011,9012,9020");
    }
  }
  return ports;
}

std::chrono::milliseconds parseSeconds(const std::string& text) {
  double seconds = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%lf%c", &seconds, &rest) != 1 || !(seconds >= 1) ||
      !(seconds <= 1e6)) {
    throw std::invalid_argument("--seconds takes a number from 1 to 1000000");
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

int parseDescriptor(const std::string& text) {
  int descriptor = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%9d%c", &descriptor, &rest) != 1 || descriptor < 0) {
    throw std::invalid_argument("--supervisor takes a file descriptor");
  }
  return descriptor;
}

std::optional<Role> roleNamed(const std::string& name) {
  if (name == "hub") return Role::Hub;
  if (name == "sensor") return Role::Sensor;
  if (name == "viewer") return Role::Viewer;
  return std::nullopt;
}

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  std::size_t next = 0;
  const auto value = [&]() -> const std::string& {
    if (next == arguments.size()) {
      throw std::invalid_argument(arguments[next - 1] + " needs a value");
    }
    return arguments[next++];
  };
  if (!arguments.empty()) {
    if (const auto role = roleNamed(arguments[0])) {
      options.role = *role;
      ++next;
    }
  }
  if (options.role == Role::Demo) {
    options.duration = std::chrono::seconds(10);
  } else {
    options.ports = Ports();
  }
  while (next < arguments.size()) {
    const std::string& option = arguments[next++];
    if (option == "--help" || option == "-h") {
      options.role = Role::Help;
      return options;
    }
    if (option == "--seconds") {
      options.duration = parseSeconds(value());
    } else if (option == "--watch") {
      options.duration.reset();
    } else if (option == "--ports") {
      options.ports = parsePorts(value());
    } else if (option == "--default-ports") {
      options.ports = Ports();
    } else if (option == "--supervisor") {  // how the demonstration starts a role
      options.supervisor = parseDescriptor(value());
    } else {
      throw std::invalid_argument("what is " + option + "? See vitals --help");
    }
  }
  return options;
}

}  // namespace vitals
