#pragma once

#include <string>

#include "app/version.h"
#include "tools/common/text.h"

namespace nimbus::tools {

/// The version of this build, as in "1.2.3".
[[nodiscard]] inline std::string version_text() {
  return format_text("%d.%d.%d", kVersionMajor, kVersionMinor, kVersionPatch);
}

}  // namespace nimbus::tools
