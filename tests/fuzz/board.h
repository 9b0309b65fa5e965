// The board that the fuzz targets run on. The service's calls of system(3), popen(3), pclose(3),
// sleep(3), usleep(3) and sendto(2) end here: no process starts, nobody sleeps, nothing leaves the
// machine, and whatever is to be run or sent is checked. Thread of the target.
#pragma once

#include <string_view>

namespace nimbus::fuzz {

/// What every command prints from now on, and how it ends: a wait status, or -1 when it cannot be
/// started. The text is not copied.
void set_tools(std::string_view output, int status);

/// Zeroes the display region and the configuration record: the same input then has the same effect,
/// whatever came before it.
void clear_memory();

/// Opens the camera link and gives it a peer, so that commands reach fuzz_sendto(). Once, with the
/// display region mapped.
void connect_camera();

}  // namespace nimbus::fuzz
