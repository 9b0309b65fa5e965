// Ctrl-C, as a wish to end in good order.
#pragma once

namespace nimbus::ctl {

/// From now on SIGINT and SIGTERM only note that the tool shall end, and a closed pipe is an error
/// of the write to it. A second Ctrl-C ends the tool at once.
void catch_signals();

/// Whether the tool shall end.
[[nodiscard]] bool interrupted();

}  // namespace nimbus::ctl
