// The commands of the service by their names.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "camera/codes.h"
#include "tools/sim/frame.h"

namespace nimbus::sim {

class CameraModel;

/// One command of the service's protocol, from its frame to what the camera does.
struct CameraCommand {
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
[[nodiscard]] std::span<const CameraCommand> all_commands();

/// The command that a frame is, or null. Receiver, command set, id and size of the payload must
/// all be right.
[[nodiscard]] const CameraCommand* find_command(const Frame& frame);

/// "NAME: ARGUMENTS", or "NAME" alone.
[[nodiscard]] std::string describe(const CameraCommand& command, Bytes payload);

/// Whether the camera knows that shutter time.
[[nodiscard]] bool is_shutter_code(const ShutterCode& code);

}  // namespace nimbus::sim
