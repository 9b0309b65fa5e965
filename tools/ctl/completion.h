// What the shell offers while somebody types.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace nimbus::ctl {

/// What may stand behind these words of a command line, options left out: words of commands, names
/// of settings, values that are a list. Nothing behind no words: there, all commands may stand.
[[nodiscard]] std::vector<std::string> choices_behind(std::span<const std::string> words);

}  // namespace nimbus::ctl
