#include "app/supervisor_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/clock.h"

namespace nimbus {
namespace {

struct Supervisor {
  int socket = -1;  ///< -1: nobody asked to be told
  sockaddr_un address{};
  socklen_t address_size = 0;
  std::int64_t feed_interval_us = 0;  ///< 0: there is no watchdog
  std::int64_t fed_us = 0;            ///< when it was fed last
};

Supervisor supervisor;

std::int64_t monotonic_us() { return clock_ns(CLOCK_MONOTONIC) / 1000; }

/// A variable as a number; 0 when there is none.
std::int64_t number_of(const char* variable) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? 0 : std::strtoll(text, nullptr, 10);
}

/// Opens a socket to a path, or, behind "@", to a name without a file.
void open_socket(std::string_view name) {
  auto& path = supervisor.address.sun_path;
  if (name.empty() || (name[0] != '/' && name[0] != '@') || name.size() >= sizeof(path)) return;
  supervisor.address.sun_family = AF_UNIX;
  std::memcpy(path, name.data(), name.size());
  if (path[0] == '@') path[0] = '\0';
  supervisor.address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  supervisor.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

/// That a message is lost is not noticed: there is nobody else to tell.
void tell(std::string_view message, int flags) {
  if (supervisor.socket == -1) return;
  sendto(supervisor.socket, message.data(), message.size(), flags | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&supervisor.address), supervisor.address_size);
}

}  // namespace

void meet_supervisor() noexcept {
  if (const char* const name = std::getenv("NOTIFY_SOCKET")) open_socket(name);
  const std::int64_t watched = number_of("WATCHDOG_PID");
  if (watched == 0 || watched == getpid()) {
    supervisor.feed_interval_us = number_of("WATCHDOG_USEC") / 2;
  }
  for (const char* const variable : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"}) {
    unsetenv(variable);
  }
}

void tell_ready() noexcept { tell("READY=1", 0); }

void tell_alive() noexcept {
  if (supervisor.feed_interval_us <= 0) return;
  const std::int64_t now = monotonic_us();
  if (supervisor.fed_us != 0 && now - supervisor.fed_us < supervisor.feed_interval_us) return;
  supervisor.fed_us = now;
  // A supervisor that does not read must not hold the status loop.
  tell("WATCHDOG=1", MSG_DONTWAIT);
}

}  // namespace nimbus
