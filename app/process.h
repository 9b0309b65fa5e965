// What the process must be before the service starts in it.
#pragma once

namespace nimbus {

/// Sets up the process: its console, its signals, its timers. Main thread, before anything else.
void prepare_process() noexcept;

}  // namespace nimbus
