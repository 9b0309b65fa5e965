// Any command text, whatever the board's tools print meanwhile, leaves every setting within its
// field, tells viewers texts only and the camera sound frames only, and never reaches the shell.
// The input is the mailbox's content, of which the text up to the first NUL counts; what stands
// behind that is the tools' output.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/json.h"
#include "config/commands.h"
#include "config/config.h"
#include "control/interpreter.h"
#include "control/rc_map.h"
#include "display/region.h"
#include "tests/fuzz/board.h"
#include "tests/fuzz/invariants.h"

namespace {

using nimbus::CommandMailbox;
using nimbus::Config;
using nimbus::DisplayRegion;
using nimbus::fuzz::require;

/// A broadcast's frame has 16 bits for its length.
void check_reply(std::string_view text) {
  require(!text.empty() && text.size() < 65'000);
  require(text.find('\0') == std::string_view::npos);
}

DisplayRegion* prepare() {
  DisplayRegion* const region = nimbus::map_display_region();
  require(region != nullptr);
  nimbus::fuzz::connect_camera();
  nimbus::init_config_commands(
      {.publish_channel_map = nimbus::parse_rc_input_map, .send_to_viewers = check_reply});
  return region;
}

/// One text, taken as the control thread takes it.
void carry_out(DisplayRegion& region, std::string_view input) {
  // As a process that maps the region may write it, whole or not.
  std::memcpy(static_cast<void*>(&region.command_mailbox), input.data(),
              std::min(input.size(), sizeof(region.command_mailbox)));
  const auto text = region.command_mailbox.take();
  require(text.view() == input.substr(0, std::min(input.find('\0'), CommandMailbox::kSize - 1)));
  require(!region.command_mailbox.full());
  // It ends the process.
  if (std::string_view(nimbus::JsonObject(text.c_str()).text_or_empty("cmd")) == "restart") return;
  nimbus::config_parse_command(text.c_str());
  nimbus::interpret_command(text.c_str());
}

void check(const DisplayRegion& region, Config& config) {
  nimbus::fuzz::require_settings(config);
  nimbus::fuzz::require_channel_map(region);
  require(region.orientation_lock <= 1 && region.show_channels <= 1 && region.osd_enabled <= 1);
  require(region.internal_camera_enabled <= 1 && region.internal_camera_fullscreen <= 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static DisplayRegion* const region = prepare();
  nimbus::fuzz::clear_memory();
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  const auto end = input.find('\0');
  const auto output = end == std::string_view::npos ? std::string_view{} : input.substr(end + 1);
  nimbus::fuzz::set_tools(output, output.ends_with('!') ? -1 : 0);
  carry_out(*region, input);
  check(*region, *nimbus::config_get());
  return 0;
}
