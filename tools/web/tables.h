// The tables of commands and settings for the page and for programs.
#pragma once

#include <string>

namespace nimbus::web {

/// `"commands":[...],"settings":[...],"wifi":[...]`, made once.
[[nodiscard]] const std::string& tables_json();

}  // namespace nimbus::web
