/* Makes pthread_create fail as it does on a system without room for another thread.
 *
 * $FAIL_THREADS is a text of one digit per creation, in their order: 1 fails it, 0 lets it be.
 * Creations behind its end succeed. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>

typedef int (*create_function)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) {
  static atomic_size_t creations;
  const char* const plan = getenv("FAIL_THREADS");
  const size_t creation = atomic_fetch_add(&creations, 1);
  if (plan != NULL && creation < strlen(plan) && plan[creation] == '1') return EAGAIN;
  create_function create;
  *(void**)&create = dlsym(RTLD_NEXT, "pthread_create");
  return create(thread, attributes, entry, argument);
}
