// The settings of the board: shown, changed, and the Wi-Fi networks around it.
#pragma once

#include <string>
#include <vector>

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

/// `nimbusctl config`: the report, for people, or as it came when `json` is set.
void show_config(const Connection& connection, bool json);

/// `nimbusctl config set`: changes a setting and says what is different afterwards.
void set_config(const Connection& connection, const std::string& name,
                const std::vector<std::string>& values, bool force);

/// `nimbusctl wifi scan`: the names of the networks that an interface hears, one on each line.
void scan_wifi(const Connection& connection, const std::string& interface);

}  // namespace nimbus::ctl
