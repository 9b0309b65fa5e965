// The network interfaces that viewers can choose, by the codes of their commands and reports.
#pragma once

#include <array>
#include <string_view>

namespace nimbus {

/// The code that stands for no interface.
inline constexpr const char* kNoInterfaceCode = "0";

struct InterfaceCode {
  const char* code;
  const char* name;  ///< empty: no interface
};

inline constexpr std::array<InterfaceCode, 3> kInterfaceCodes{{
    {kNoInterfaceCode, ""},
    {"1", "wifi0"},
    {"2", "wlan0"},
}};

/// The name of an interface code, empty for "0", null for a code that is none.
[[nodiscard]] const char* interface_name(std::string_view code) noexcept;

/// The code of an interface name, "0" for any that has none.
[[nodiscard]] const char* interface_code(std::string_view name) noexcept;

}  // namespace nimbus
