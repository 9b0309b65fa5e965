// Any configuration file leaves every setting within its field.
#include <ini.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "config/fields.h"
#include "config/loader.h"
#include "tests/fuzz/invariants.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using nimbus::fuzz::require;
  const std::string file(reinterpret_cast<const char*>(bytes), size);
  nimbus::PublishChannelMap publish = [](std::string_view map) {
    require(map.size() < decltype(nimbus::Config::rc_input_map)::kCapacity);
  };
  ini_parse_string(file.c_str(), nimbus::config_handler, &publish);

  nimbus::Config& config = *nimbus::config_get();
  nimbus::fuzz::require_settings(config);
  require(config.ap_ssid.copy().view().find('"') == std::string_view::npos);
  return 0;
}
