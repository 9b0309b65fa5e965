// UDP on the loopback interface, with the kernel's time stamp on what arrives.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <span>

#include "base/unique_fd.h"

namespace nimbus::bench {

/// Nanoseconds of the clock that the kernel stamps received datagrams with (CLOCK_REALTIME).
[[nodiscard]] std::chrono::nanoseconds wall_clock();

/// Throws the last system error, with `what`, unless something was done.
void check(bool done, const char* what);

/// A socket that is not bound yet. Throws std::system_error.
[[nodiscard]] UniqueFd udp_socket();

/// A socket on a free port of 127.0.0.1, whose datagrams are stamped. Throws std::system_error.
[[nodiscard]] UniqueFd stamped_udp_socket();

/// The port that a socket is bound to.
[[nodiscard]] std::uint16_t port_of(const UniqueFd& socket);

/// Sends one datagram to that port of 127.0.0.1. Throws std::system_error.
void send(const UniqueFd& socket, std::span<const std::uint8_t> bytes, std::uint16_t port);

/// Room for the kernel's stamp on one datagram, as recvmsg(2) fills it.
using StampSpace = std::array<std::uint8_t, CMSG_SPACE(sizeof(timespec))>;

/// The kernel's stamp on a received datagram.
[[nodiscard]] std::chrono::nanoseconds arrival_of(msghdr& message);

}  // namespace nimbus::bench
