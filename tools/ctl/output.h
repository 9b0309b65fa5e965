// Standard output, which may be a pipe that its reader closes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace nimbus::ctl {

/// The reader of standard output has enough: the tool ends with status 0.
struct PipeClosed {};

/// The text with "?" in place of each control character, U+0080 to U+009F among them: names of
/// networks come from anybody, and a terminal obeys them.
[[nodiscard]] std::string shown(std::string_view text);

/// Writes a text as it is shown, and a line end, at once. Throws PipeClosed, or Failure when it
/// cannot be written.
void print_line(std::string_view text);

/// Writes bytes as they are. Throws like print_line(); stops at an interrupt.
void write_bytes(std::span<const std::uint8_t> bytes);

/// Throws PipeClosed when nobody reads standard output any more.
void expect_reader();

}  // namespace nimbus::ctl
