// Any configuration file leaves every setting within its field.
#include <ini.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "config/fields.h"
#include "config/loader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using nimbus::FieldKind;
  const std::string file(reinterpret_cast<const char*>(bytes), size);
  nimbus::PublishChannelMap publish = [](std::string_view map) {
    if (map.size() >= decltype(nimbus::Config::rc_input_map)::kCapacity) std::abort();
  };
  ini_parse_string(file.c_str(), nimbus::config_handler, &publish);

  nimbus::Config& config = *nimbus::config_get();
  for (const auto& field : nimbus::kConfigFields) {
    if (field.kind == FieldKind::flag && config.*field.byte > 1) std::abort();
  }
  if (config.ap_ssid.copy().view().find('"') != std::string_view::npos) std::abort();
  return 0;
}
