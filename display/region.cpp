#include "display/region.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/shared_memory.h"

namespace nimbus {
namespace {

constexpr off_t kSize = sizeof(DisplayRegion);

// Together 100 ms: more than any process takes from one call to the next.
constexpr int kLooks = 20;
constexpr useconds_t kPauseUs = 5000;

DisplayRegion* region = nullptr;

DisplayRegion* refuse(const char* reason) {
  log_text("Cannot map shared memory %s: %s\n", kDisplayRegionName, reason);
  return nullptr;
}

/// The size of the object, once it is large enough: a sibling process makes it first and sizes it
/// then, and may be between the two. What it is when the patience is over; -1 for an error.
off_t settled_size(const UniqueFd& fd) {
  struct stat status {};
  for (int look = 0;; ++look) {
    if (fstat(fd.get(), &status) != 0) return -1;
    if (status.st_size >= kSize || look == kLooks) return status.st_size;
    usleep(kPauseUs);
  }
}

DisplayRegion* map_region() {
  bool created = false;
  const UniqueFd fd = open_shared_memory(kDisplayRegionName, created);
  if (!fd) return refuse(std::strerror(errno));
  if (created) {
    if (ftruncate(fd.get(), sizeof(DisplayRegion)) != 0) return refuse(std::strerror(errno));
  } else {
    const off_t size = settled_size(fd);
    if (size == -1) return refuse(std::strerror(errno));
    // Touching a page that the object does not have would end the process with a bus error.
    if (size < kSize) {
      log_text("Cannot map shared memory %s: it has %lld bytes, expected at least %zu\n",
               kDisplayRegionName, static_cast<long long>(size), sizeof(DisplayRegion));
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
