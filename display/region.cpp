#include "display/region.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/shared_memory.h"

namespace nimbus {
namespace {

constexpr const char* kName = "/hud_mem";

DisplayRegion* region = nullptr;

DisplayRegion* refuse(const char* reason) {
  log_text("Cannot map shared memory %s: %s\n", kName, reason);
  return nullptr;
}

DisplayRegion* map_region() {
  bool created = false;
  const UniqueFd fd = open_shared_memory(kName, created);
  if (!fd) return refuse(std::strerror(errno));
  if (created) {
    if (ftruncate(fd.get(), sizeof(DisplayRegion)) != 0) return refuse(std::strerror(errno));
  } else {
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) return refuse(std::strerror(errno));
    // Touching a page that the object does not have would end the process with a bus error.
    if (status.st_size < static_cast<off_t>(sizeof(DisplayRegion))) {
      log_text("Cannot map shared memory %s: it has %lld bytes, expected at least %zu\n", kName,
               static_cast<long long>(status.st_size), sizeof(DisplayRegion));
      return nullptr;
    }
  }
  void* const address = map_shared_memory(fd, sizeof(DisplayRegion));
  if (address == nullptr) return refuse(std::strerror(errno));
  return static_cast<DisplayRegion*>(address);
}

}  // namespace

DisplayRegion* map_display_region() {
  region = map_region();
  return region;
}

DisplayRegion* display_region() noexcept { return region; }

}  // namespace nimbus
