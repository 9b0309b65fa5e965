// The file is one key=value a line, as inih reads it by default: lines up to 199 bytes, ";" and "#"
// comments, indented continuation lines (each stores its key again), sections in square brackets,
// which the service ignores. Nothing is range-checked: a percentage of 150 is stored as it stands.
#include "config/loader.h"

#include <ini.h>

#include <cstring>
#include <string_view>

#include "config/fields.h"
#include "config/region.h"

namespace nimbus {
namespace {

constexpr const char* kFileName = "tervado.conf";
constexpr std::string_view kEmptyMap = (*ConfigKey("rc_input_map")).fresh;
static_assert(kEmptyMap.size() == 31);

}  // namespace

int config_handler(void* user, const char* section, const char* name, const char* value) {
  if (*section != '\0') return 0;
  const ConfigField* const field = find_config_field(name);
  if (field == nullptr) return 0;
  store_config_field(*field, value, *static_cast<const PublishChannelMap*>(user));
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
