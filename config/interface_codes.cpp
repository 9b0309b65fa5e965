#include "config/interface_codes.h"

#include <algorithm>

namespace nimbus {

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
