#pragma once

#include <stdexcept>

namespace nimbus::tools {

/// Something that a person can mend: the text is one line that says what was wrong and what is
/// expected. Tools print it on standard error behind their name and end with status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace nimbus::tools
