// A socket for each viewer to send through, all on the port that one other socket receives on.
//
// What waits in an interface's queue, or for an address to be resolved, is charged to the socket
// that it was sent through, and when that is full it takes nothing more. With one socket for all, a
// single viewer on a bad link would stop the picture for everybody. With these, each viewer can
// only use up what is its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "net/udp_link.h"

namespace nimbus {

/// Takes the port for this process alone, with sockets that send from it and receive nothing. They
/// are the beginning of a group (SO_REUSEPORT, socket(7)): whatever arrives goes to the link that
/// joins them next, and from its first moment on. Returns false, with none open, when the port is
/// taken or the system cannot steer (a group can be steered since Linux 4.5). Main thread, once.
[[nodiscard]] bool open_send_sockets(std::span<int> sockets, std::uint16_t port) noexcept;

/// Sends one datagram made of `parts` through a socket, unless too much waits there already: then
/// it is lost. Never waits. Returns what sendmsg(2) returns. Any thread.
std::ptrdiff_t send_through(int socket, std::span<const iovec> parts,
                            Endpoint destination) noexcept;

}  // namespace nimbus
