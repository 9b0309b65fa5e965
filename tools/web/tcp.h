// What the system's TCP tells of a connection, and is told. Apart from the rest: the kernel's
// header and the C library's do not go together.
#pragma once

#include <cstdint>

namespace nimbus::web {

/// How far a TCP connection has come: changes as long as its other side takes bytes.
[[nodiscard]] std::uint64_t tcp_progress(int fd);

/// Sets what a connection needs so that little of it hides in the system.
void tune_tcp(int fd);

}  // namespace nimbus::web
