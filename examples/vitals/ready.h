#ifndef VITALS_READY_H
#define VITALS_READY_H

#include <string>

namespace vitals {

constexpr int kNobody = -1;

/// Says in a line that a role is ready: to the supervisor, through this descriptor, or to the user
/// if the role was started by hand and there is nobody else to tell.
void sayReady(int supervisor, const std::string& line);

}  // namespace vitals

#endif
