#include "config/fields.h"

#include "base/number.h"

namespace nimbus {
namespace {

// Longest quoted text that a field takes, its NUL included.
constexpr std::size_t kQuotedTextSize = 256;

/// Stores `value` less its double quotes. The value is cut to the field before they are dropped.
void assign_unquoted(SharedTextRef field, std::string_view value) {
  std::array<char, kQuotedTextSize> text;
  std::size_t length = 0;
  for (const char c : value.substr(0, kQuotedTextSize - 1)) {
    if (c != '"') text[length++] = c;
  }
  field.assign({text.data(), length});
}

}  // namespace

void store_config_field(const ConfigField& field, const char* value,
                        PublishChannelMap publish_channel_map) noexcept {
  Config& config = *config_get();
  switch (field.kind) {
    case FieldKind::flag:
      config.*field.byte = parse_i32(value) != 0 ? 1 : 0;
      break;
    case FieldKind::byte:
      config.*field.byte = static_cast<std::uint8_t>(parse_i32(value));
      break;
    case FieldKind::number:
      config.*field.number = parse_i32(value);
      break;
    case FieldKind::text:
      field.text(config).assign(value);
      break;
    case FieldKind::channel_map:
      field.text(config).assign(value);
      if (publish_channel_map != nullptr) publish_channel_map(config.rc_input_map.copy().view());
      break;
    case FieldKind::quoted_text:
      assign_unquoted(field.text(config), value);
      break;
  }
}

}  // namespace nimbus
