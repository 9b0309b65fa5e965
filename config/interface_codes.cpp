#include "config/interface_codes.h"

#include <algorithm>
#include <array>

namespace nimbus {
namespace {

struct InterfaceCode {
  const char* code;
  const char* name;
};

constexpr std::array<InterfaceCode, 3> kInterfaceCodes{{
    {kNoInterfaceCode, ""},
    {"1", "wifi0"},
    {"2", "wlan0"},
}};

}  // namespace

const char* interface_name(std::string_view code) noexcept {
  const auto* const found = std::find_if(kInterfaceCodes.begin(), kInterfaceCodes.end(),
                                         [code](const auto& row) { return row.code == code; });
  return found == kInterfaceCodes.end() ? nullptr : found->name;
}

const char* interface_code(std::string_view name) noexcept {
  const auto* const found = std::find_if(kInterfaceCodes.begin(), kInterfaceCodes.end(),
                                         [name](const auto& row) { return row.name == name; });
  return found == kInterfaceCodes.end() ? kNoInterfaceCode : found->code;
}

}  // namespace nimbus
