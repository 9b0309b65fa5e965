// The shared-memory object of the configuration.
#pragma once

#include "config/config.h"

namespace nimbus {

/// Creates or opens "/config_mem" (mode 0600), sizes it to one Config, and maps it for the life of
/// the process. The region is the sibling processes' own: the service neither copies its record
/// into it nor reads it. A failure goes unreported and leaves config_region() null. Main thread,
/// once.
void map_config_region() noexcept;

/// The mapped region, null before map_config_region() or after its failure. Nobody in the service
/// calls this: the tests do, to see that the region stays as it was. Any thread.
[[nodiscard]] Config* config_region() noexcept;

}  // namespace nimbus
