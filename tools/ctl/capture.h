// What a viewer receives and sends, as a file for Wireshark and for a replay.
#pragma once

#include <string>

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

/// `nimbusctl capture`: writes to the file, or to standard output when it is "-". Until Ctrl-C when
/// `seconds` is 0.
void capture(const Connection& connection, const std::string& path, double seconds);

}  // namespace nimbus::ctl
