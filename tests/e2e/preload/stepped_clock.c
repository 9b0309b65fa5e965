/* Shows the process the wall clock that a test sets, in the file that $STEPPED_CLOCK names:
 *
 *   0  i64  nanoseconds: the time itself while the clock stands, else what it is ahead of the
 *           system's
 *   8  i64  1: the clock stands
 *  16  i64  microseconds that a pause of whole seconds takes; 0: as long as it takes
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

struct settings {
  _Atomic int64_t nanoseconds;
  _Atomic int64_t stands;
  _Atomic int64_t pause_us;
};

static struct settings* settings;
static int (*system_clock)(clockid_t, struct timespec*);
static unsigned (*system_sleep)(unsigned);

__attribute__((constructor)) static void open_settings(void) {
  *(void**)&system_clock = dlsym(RTLD_NEXT, "clock_gettime");
  *(void**)&system_sleep = dlsym(RTLD_NEXT, "sleep");
  const char* const path = getenv("STEPPED_CLOCK");
  const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) abort();
  void* const address =
      mmap(NULL, sizeof(struct settings), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) abort();
  close(fd);
  settings = address;
  /* The commands that the process runs have the system's clock. */
  unsetenv("LD_PRELOAD");
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  const int64_t second = 1000000000;
  const int status = system_clock(clock, now);
  if (status != 0 || clock != CLOCK_REALTIME) return status;
  int64_t time = atomic_load(&settings->nanoseconds);
  if (!atomic_load(&settings->stands)) time += (int64_t)now->tv_sec * second + now->tv_nsec;
  now->tv_sec = (time_t)(time / second);
  now->tv_nsec = (long)(time % second);
  return 0;
}

unsigned sleep(unsigned seconds) {
  const int64_t pause = atomic_load(&settings->pause_us);
  if (pause == 0) return system_sleep(seconds);
  usleep((useconds_t)pause);
  return 0;
}
