// Which boards there are on the local networks.
#pragma once

#include <vector>

#include "tools/ctl/mdns.h"
#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

/// Lists the boards that answer within so many seconds, each on a line or as a JSON object. Throws
/// Failure when there is none.
void discover(double seconds, bool json);

/// The only board that answers, which standard error is told of; nothing when none does. Throws
/// Failure that lists them when there are several.
[[nodiscard]] std::optional<Place> only_board();

}  // namespace nimbus::ctl
