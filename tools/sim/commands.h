// The commands of the service by their names.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "camera/codes.h"
#include "camera/words.h"
#include "tools/sim/frame.h"

namespace nimbus::sim {

class CameraModel;

/// One command of the service's protocol, from its frame to what the camera does.
struct CommandName {
  std::uint8_t receiver;
  std::uint8_t set;
  std::uint8_t id;
  std::uint8_t payload_size;
  /// Some commands share an id: their payload's byte `at` tells them apart. Anything but `any`
  /// must stand there.
  std::uint8_t at;
  int byte;
  std::string_view name;
  std::string (*arguments)(Bytes payload);  ///< in words; null: it has none
  /// Does what the command says. Returns nothing, or why the camera ignores it.
  std::string_view (*act)(CameraModel& camera, Bytes payload);
  bool streamed = false;  ///< comes again and again, unlike what a person asks for

  static constexpr int any = -1;
};

/// Every command.
[[nodiscard]] std::span<const CommandName> all_commands();

/// The command that a frame is, or null. Receiver, command set, id and size of the payload must
/// all be right.
[[nodiscard]] const CommandName* find_command(const Frame& frame);

/// "NAME: ARGUMENTS", or "NAME" alone.
[[nodiscard]] std::string describe(const CommandName& command, Bytes payload);

// --- Codes -------------------------------------------------------------------------------------
// Those that only commands carry; the others stand in camera/codes.h.

/// The words of a command as names of its codes.
template <std::size_t count>
constexpr std::array<Code<std::string_view>, count> by_code(
    const std::array<Word<std::uint8_t>, count>& words) {
  std::array<Code<std::string_view>, count> codes{};
  for (std::size_t i = 0; i < count; ++i) codes[i] = {words[i].word, words[i].value};
  return codes;
}

inline constexpr std::array<Code<std::string_view>, 2> kGimbalModes{{{"fpv", 1}, {"follow", 2}}};
inline constexpr std::array<Code<std::string_view>, 2> kGimbalPositions{{
    {"centre", 0x08},
    {"next", 0x09},
}};
inline constexpr auto kFollowSpeeds = by_code(nimbus::kFollowSpeeds);
inline constexpr auto kAspectRatios = by_code(nimbus::kAspectRatios);
inline constexpr auto kFocusTypes = by_code(nimbus::kFocusTypes);
inline constexpr std::array<Code<std::string_view>, 3> kAntiFlickers{{
    {"off", 0},
    {"50 Hz", 1},
    {"60 Hz", 2},
}};

/// The row of that code, or null. The table is any range of Code.
template <typename Table>
[[nodiscard]] constexpr auto find_code(const Table& table, unsigned code) {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [code](const auto& row) { return row.code == code; });
  return found == std::end(table) ? nullptr : &*found;
}

/// Whether the camera knows that shutter time.
[[nodiscard]] bool is_shutter_code(const ShutterCode& code);

}  // namespace nimbus::sim
