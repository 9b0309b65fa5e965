// Standard output, which may be a pipe that its reader closes.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace nimbus::ctl {

/// The reader of standard output has enough: the tool ends with status 0.
struct PipeClosed {};

/// Writes a text and a line end, at once. Control characters are shown as "?": names of networks
/// come from anybody, and a terminal obeys them. Throws PipeClosed, or Failure when it cannot be
/// written.
void print_line(std::string_view text);

/// Writes bytes as they are. Throws like print_line(); stops at an interrupt.
void write_bytes(std::span<const std::uint8_t> bytes);

/// Throws PipeClosed when nobody reads standard output any more.
void expect_reader();

}  // namespace nimbus::ctl
