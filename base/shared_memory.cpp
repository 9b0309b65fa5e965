#include "base/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>

namespace nimbus {

UniqueFd open_shared_memory(const char* name, bool& created) noexcept {
  constexpr int kMode = 0600;
  // A sibling may create the object between the two calls; then the first one succeeds next time.
  for (;;) {
    created = false;
    UniqueFd fd(shm_open(name, O_RDWR, kMode));
    if (fd || errno != ENOENT) return fd;
    created = true;
    fd = UniqueFd(shm_open(name, O_RDWR | O_CREAT | O_EXCL, kMode));
    if (fd || errno != EEXIST) return fd;
  }
}

void* map_shared_memory(const UniqueFd& fd, std::size_t size) noexcept {
  void* const address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  // cppcheck-suppress memleak ; mapped for the life of the process
  return address == MAP_FAILED ? nullptr : address;
}

}  // namespace nimbus
