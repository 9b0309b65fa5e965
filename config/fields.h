// The 39 configuration keys as data. The loader walks them; so does whatever else reads or writes
// settings by name.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/shared.h"
#include "base/shared_text.h"
#include "config/config.h"

namespace nimbus {

/// How the text of a key becomes the value of its field.
enum class FieldKind : std::uint8_t {
  flag,         ///< a number; the byte becomes 1 when it is not 0
  byte,         ///< a number, cut to 8 bits
  number,       ///< a signed 32-bit number
  text,         ///< a text, cut to the field
  channel_map,  ///< a text, cut to the field and then published as the RC channel map
  quoted_text,  ///< a text whose double quotes are all dropped: the file puts it between quotes
};

/// One key and the field that it names. Exactly one of the three members is set.
struct ConfigField {
  std::string_view key;
  FieldKind kind;
  Shared<std::uint8_t> Config::*byte = nullptr;
  Shared<std::int32_t> Config::*number = nullptr;
  SharedTextRef (*text)(Config&) = nullptr;
};

inline constexpr std::size_t kConfigFieldCount = 39;

/// No text of the record is longer, its NUL included.
inline constexpr std::size_t kLongestConfigText = decltype(Config::rc_input_map)::kCapacity;

/// All keys, in the order in which the loader tests them.
extern const std::array<ConfigField, kConfigFieldCount> kConfigFields;

/// The field of exactly that key, or null. Any thread.
[[nodiscard]] const ConfigField* find_config_field(std::string_view key) noexcept;

/// Called with the stored map text whenever an "rc_input_map" has been stored.
using PublishChannelMap = void (*)(std::string_view map);

/// Stores a value, given as text, in a field of the record, as its kind has it. A new channel map
/// is published if the function is not null. Main thread at start, control thread afterwards.
void store_config_field(const ConfigField& field, const char* value,
                        PublishChannelMap publish_channel_map) noexcept;

}  // namespace nimbus
