#include "config/region.h"

#include <unistd.h>

#include "base/shared_memory.h"

namespace nimbus {
namespace {

Config* region = nullptr;

}  // namespace

void map_config_region() noexcept {
  bool created = false;
  const UniqueFd fd = open_shared_memory("/config_mem", created);
  // Sized also when it existed: its content belongs to the siblings, its size to the service.
  if (!fd || ftruncate(fd.get(), sizeof(Config)) != 0) return;
  region = static_cast<Config*>(map_shared_memory(fd, sizeof(Config)));
}

Config* config_region() noexcept { return region; }

}  // namespace nimbus
