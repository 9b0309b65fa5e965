// The relayed video as films: MP4 files that play as far as they were written.
#pragma once

#include <string>

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

struct FilmOptions {
  std::string path;  ///< of the first film; those behind it have "-2", "-3" ... in their names
  double split = 0;  ///< seconds after which another is begun, at a key picture; 0: never
};

/// `nimbusctl video --mp4`: until Ctrl-C when `seconds` is 0. A picture is shown from when it came
/// to when the next one did. Throws Failure when no picture came, a film cannot be written, or no
/// space is left for more of it.
void record_film(const Connection& connection, const FilmOptions& options, double seconds);

}  // namespace nimbus::ctl
