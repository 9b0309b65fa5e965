// Threads that run for the life of the process.
#pragma once

#include <pthread.h>

namespace nimbus {

/// Starts a thread with default attributes that nobody will ever join. That it cannot be created is
/// not reported: the service goes on without what it does.
inline void start_thread(void* (*entry)(void*) noexcept, void* argument = nullptr) noexcept {
  pthread_t thread{};
  if (pthread_create(&thread, nullptr, entry, argument) == 0) pthread_detach(thread);
}

}  // namespace nimbus
