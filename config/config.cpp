#include "config/config.h"

namespace nimbus {
namespace {

Config config;

}  // namespace

Config* config_get() noexcept { return &config; }

}  // namespace nimbus
