// POSIX shared-memory objects, as the shared regions use them.
#pragma once

#include <cstddef>

#include "base/unique_fd.h"

namespace nimbus {

/// Opens the shared-memory object `name` read-write, creating it with mode 0600 where it does not
/// exist. Sets `created` accordingly. The descriptor is empty on failure, with errno set.
[[nodiscard]] UniqueFd open_shared_memory(const char* name, bool& created) noexcept;

/// Maps the first `size` bytes of `fd` read-write and shared, for the life of the process. Null on
/// failure, with errno set.
[[nodiscard]] void* map_shared_memory(const UniqueFd& fd, std::size_t size) noexcept;

}  // namespace nimbus
