#ifndef VITALS_TABLE_H
#define VITALS_TABLE_H

#include <optional>
#include <string>
#include <vector>

#include "board.h"
#include "hub_statistics.h"
#include "screen.h"

namespace vitals {

/// The live picture, as lines that fit into the size.
std::vector<std::string> drawTable(const Picture& picture, const std::optional<HubStatistics>& hub,
                                   Size size, Look look);

/// The same in a few words, for an output that is no terminal.
std::string drawLine(const Picture& picture);

}  // namespace vitals

#endif
