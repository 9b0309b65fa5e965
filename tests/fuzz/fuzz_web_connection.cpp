// Any bytes of a browser, or of somebody who is none: HTTP, and behind an upgrade WebSocket frames.
// With a password set, nothing of the state is told.
#include <cstdint>
#include <string>

#include "tests/fuzz/invariants.h"
#include "tests/unit/web_wire.h"
#include "tools/web/site.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace nimbus::web;
  using nimbus::fuzz::require;
  if (size == 0) return 0;
  Guests guests;
  Hub hub("board:4242", {[](std::string_view) { return true; },
                         [](const std::array<std::int16_t, 3>&) { return true; }});
  hub.each_second(true, Clock::now());
  ConsoleSite site(hub, guests, {});
  const bool guarded = (bytes[0] & 1U) != 0;
  if (guarded) {
    Passwords passwords;
    passwords.set(Role::operates, "*");  // that nothing hashes to
    site.use(passwords);
  }
  Wire wire(site);
  std::string upgrade;
  if ((bytes[0] & 2U) != 0) {
    upgrade =
        "GET /ws/control HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: "
        "Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: "
        "dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
  }
  wire.send(upgrade);
  std::string_view rest(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  const std::size_t piece = 1 + (bytes[0] >> 2U) * 8;
  std::string answer;
  while (!rest.empty()) {
    wire.send(rest.substr(0, piece));
    rest.remove_prefix(std::min(piece, rest.size()));
    answer += wire.take();
  }
  if (guarded) require(answer.find("\"gimbal\"") == std::string::npos);
  hub.pass_time(Clock::now());
  wire.check(Clock::now() + std::chrono::hours(1));
  return 0;
}
