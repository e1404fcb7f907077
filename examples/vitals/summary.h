#ifndef VITALS_SUMMARY_H
#define VITALS_SUMMARY_H

#include <optional>
#include <string>

#include "board.h"
#include "hub_statistics.h"

namespace vitals {

/// What the viewer has to say at its end.
struct Summary {
  std::string text;
  bool good = false;  ///< Nothing was missed, calls were made, and none went wrong.
};

/// `sensorEnded`: it said so, and so must have withdrawn everything. `hub` is none if the hub was
/// not heard of after that.
Summary summarize(const Picture& picture, const std::optional<HubStatistics>& hub,
                  bool sensorEnded);

}  // namespace vitals

#endif
