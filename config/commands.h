// The configuration commands of viewers.
#pragma once

#include <string_view>

#include "config/fields.h"

namespace nimbus {

/// Ends the board's own camera; its supervisor starts it again, with the settings of then.
inline constexpr const char* kEndCamera = "killall -q raspivid";

/// What the commands need of the rest of the service.
struct ConfigCommandHooks {
  PublishChannelMap publish_channel_map;
  void (*send_to_viewers)(std::string_view text);  ///< to all of them
};

/// Main thread, before the control threads run.
void init_config_commands(const ConfigCommandHooks& hooks) noexcept;

/// Carries out one command: a JSON object with the text members "cmd", "name", "param", "value" and
/// "value2" to "value12", in capitals or not; a missing member is empty. A text that is not JSON
/// and words that are unknown do nothing. Changes are saved at once, and the processes that use the
/// setting are ended, to be started again by their supervisors. May hold its caller for as long as
/// the board's tools take. "restart" ends the process with status 3. Control thread.
void config_parse_command(const char* text) noexcept;

}  // namespace nimbus
