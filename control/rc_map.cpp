#include "control/rc_map.h"

#include "display/region.h"

namespace nimbus {
namespace {

RcFunction function_of(std::string_view word) {
  const RcFunction* const found = find_word(kRcFunctionWords, word);
  return found == nullptr ? RcFunction::none : *found;
}

}  // namespace

void parse_rc_input_map(std::string_view map) noexcept {
  DisplayRegion* const region = display_region();
  if (region == nullptr) return;
  auto& channels = region->rc_channel_map;
  for (auto& channel : channels) channel = static_cast<std::uint8_t>(RcFunction::none);
  for (auto& channel : channels) {
    const auto comma = map.find(',');
    channel = static_cast<std::uint8_t>(function_of(map.substr(0, comma)));
    if (comma == std::string_view::npos) break;
    map.remove_prefix(comma + 1);
  }
}

}  // namespace nimbus
