// The settings of the board by the names under which viewers change them.
#pragma once

#include <cjson/cJSON.h>

#include <array>
#include <span>
#include <string>
#include <string_view>

#include "tools/ctl/commands.h"

namespace nimbus::ctl {

struct Setting {
  std::string_view name;
  std::string_view help;
  std::array<Argument, 3> values;  ///< up to the first without a name
  bool stored = true;              ///< whether the report can show it
};

/// Every setting but "wifi".
[[nodiscard]] std::span<const Setting> all_settings();

/// A value of the setting "wifi", which sets all networks at once.
struct WifiValue {
  std::string_view name;  ///< as in the report
  const Accepts* accepts;
};

/// In the order of the command.
[[nodiscard]] std::span<const WifiValue> wifi_values();

/// The JSON text that changes a setting. `report` gives the values of "wifi" that are not named: a
/// JSON object, the report before the change. Throws Failure for unknown names and for values that
/// are not accepted.
[[nodiscard]] std::string json_for_setting(std::string_view name,
                                           std::span<const std::string> values, bool force,
                                           const cJSON* report);

/// The JSON text that asks for the report, which shows every setting.
inline constexpr std::string_view kReportRequest = R"({"cmd":"configrequest"})";

/// The JSON text that asks an interface for the networks that it hears. Throws Failure when there
/// is no such interface.
[[nodiscard]] std::string json_for_scan(std::string_view interface);

/// Whether the report shows what the setting does.
[[nodiscard]] bool is_stored(std::string_view name);

}  // namespace nimbus::ctl
