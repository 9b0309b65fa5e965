// The start of the service: what it is made of, and who is handed what.
#pragma once

namespace nimbus {

/// Starts the service and never returns while it runs. Returns the exit status when it cannot
/// start, after the reason was written to standard error. Main thread.
int run_service();

}  // namespace nimbus
