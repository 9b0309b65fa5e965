// Small helpers around the output of commands. Nobody in the service calls them: they are for
// setting up the networks, see config/wireless.h. The commands must not hold anything that came
// from outside. Control thread.
#pragma once

#include <span>
#include <string_view>

namespace nimbus {

/// The first 10,000 bytes of a command's output, NUL-terminated. Static storage, overwritten by the
/// next call. Null when the command cannot be started.
const char* run_capture(const char* command) noexcept;

/// The last line of a command's output, of one longer than the buffer its last piece. In the whole
/// buffer line ends are then replaced by NULs and tabs by blanks. Returns the command's wait
/// status; -1, with the buffer untouched, when it cannot be started.
int run_last_line(const char* command, std::span<char> buffer) noexcept;

/// Where `what` first stands in `text`, in bytes, or -1.
int find_index(std::string_view text, std::string_view what) noexcept;

}  // namespace nimbus
