// What this machine is called by browsers.
#pragma once

#include <string>
#include <vector>

namespace nimbus::web {

/// The names and IPv4 addresses of this machine.
[[nodiscard]] std::vector<std::string> own_names();

}  // namespace nimbus::web
