/* Counts the process's calls to the heap into the first eight bytes of the file that
 * $ALLOCATION_COUNT names, where a test can read the number while the process runs. */
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

/* The C library's own names of its allocator. */
extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);
extern void __libc_free(void* block);

typedef _Atomic uint64_t counter;

static counter calls_before_the_file;
static counter* calls = &calls_before_the_file;

static void count(void) { atomic_fetch_add(calls, 1); }

__attribute__((constructor)) static void open_counter(void) {
  const char* const path = getenv("ALLOCATION_COUNT");
  const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(counter)) != 0) abort();
  void* const address = mmap(NULL, sizeof(counter), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) abort();
  close(fd);
  calls = address;
  atomic_store(calls, calls_before_the_file);
  /* The commands that the process runs allocate as they like. */
  unsetenv("LD_PRELOAD");
}

void* malloc(size_t size) {
  count();
  return __libc_malloc(size);
}

void* calloc(size_t number, size_t size) {
  count();
  return __libc_calloc(number, size);
}

void* realloc(void* block, size_t size) {
  count();
  return __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) {
  count();
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
  count();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
  count();
  *block = __libc_memalign(alignment, size);
  return *block == NULL ? ENOMEM : 0;
}

void free(void* block) {
  if (block != NULL) count();
  __libc_free(block);
}
