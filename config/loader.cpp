// The file is one key=value a line, as inih reads it by default: lines up to 200 bytes, ";" and "#"
// comments, indented continuation lines (each stores its key again), sections in square brackets,
// which the service ignores. Nothing is range-checked: a percentage of 150 is stored as it stands.
#include "config/loader.h"

#include <ini.h>

#include <array>
#include <cstring>
#include <string_view>

#include "base/number.h"
#include "config/fields.h"
#include "config/region.h"

namespace nimbus {
namespace {

constexpr const char* kFileName = "tervado.conf";
constexpr const char* kEmptyMap = ",,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,";
static_assert(std::string_view(kEmptyMap).size() == 31);

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

void store(Config& config, const ConfigField& field, const char* value,
           PublishChannelMap publish_channel_map) {
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

}  // namespace

int config_handler(void* user, const char* section, const char* name, const char* value) {
  if (*section != '\0') return 0;
  const ConfigField* const field = find_config_field(name);
  if (field == nullptr) return 0;
  store(*config_get(), *field, value, *static_cast<const PublishChannelMap*>(user));
  return 1;
}

int config_load(PublishChannelMap publish_channel_map) {
  Config* const config = config_get();
  std::memset(static_cast<void*>(config), 0, sizeof(*config));
  map_config_region();
  // A positive result tells of a line that was refused or did not parse; such lines are skipped.
  if (ini_parse(kFileName, config_handler, &publish_channel_map) == -1) return -1;
  if (config->rc_input_map.empty()) config->rc_input_map.assign(kEmptyMap);
  return 0;
}

}  // namespace nimbus
