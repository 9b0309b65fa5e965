#include "tools/ctl/completion.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "config/interface_codes.h"
#include "tools/ctl/commands.h"
#include "tools/ctl/settings.h"

namespace nimbus::ctl {
namespace {

using Choices = std::vector<std::string>;
using Words = std::span<const std::string>;

/// The texts that a value may have, if they are a list. Those with blanks cannot be completed.
template <std::size_t count>
void add_values(Choices& choices, const std::array<Argument, count>& arguments, std::size_t index) {
  if (index >= count || arguments[index].accepts == nullptr) return;
  const Shape shape = arguments[index].accepts->shape();
  if (shape.kind == "switch") choices.insert(choices.end(), {"on", "off"});
  if (shape.kind != "choice") return;
  std::copy_if(shape.choices.begin(), shape.choices.end(), std::back_inserter(choices),
               [](const std::string& text) { return text.find(' ') == std::string::npos; });
}

/// Whether the shorter of the two is where the other begins.
bool begin_alike(Words words, std::span<const std::string_view> others) {
  const std::size_t both = std::min(words.size(), others.size());
  return std::ranges::equal(words.first(both), others.first(both));
}

Choices interfaces() {
  Choices choices;
  for (const InterfaceCode& row : kInterfaceCodes) {
    if (*row.name != '\0') choices.emplace_back(row.name);
  }
  return choices;
}

Choices behind_config_set(Words words) {
  Choices choices;
  if (words.empty()) {
    for (const Setting& setting : all_settings()) choices.emplace_back(setting.name);
    choices.emplace_back("wifi");
  } else if (words[0] == "wifi") {
    for (const WifiValue& value : wifi_values()) choices.push_back(std::string(value.name) + "=");
  } else {
    for (const Setting& setting : all_settings()) {
      if (setting.name == words[0]) add_values(choices, setting.values, words.size() - 1);
    }
  }
  return choices;
}

}  // namespace

std::vector<std::string> choices_behind(std::span<const std::string> words) {
  if (words.empty()) return {};
  if (words.size() >= 2 && words[0] == "config" && words[1] == "set") {
    return behind_config_set(words.subspan(2));
  }
  if (words.size() == 2 && words[0] == "wifi" && words[1] == "scan") return interfaces();
  Choices choices;
  for (const Command& command : all_commands()) {
    const auto own = words_of(command.words);
    if (!begin_alike(words, own)) continue;
    if (words.size() < own.size()) {
      choices.emplace_back(own[words.size()]);
    } else {
      add_values(choices, command.arguments, words.size() - own.size());
    }
  }
  return choices;
}

}  // namespace nimbus::ctl
