// Any text of a page or a program: what goes to the service is a JSON object that fits its mailbox.
#include <cstdint>
#include <string>

#include "tests/fuzz/invariants.h"
#include "tools/web/hub.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace nimbus::web;
  using nimbus::fuzz::require;
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  Hub hub("board:4242", {[](std::string_view command) {
                           require(nimbus::ctl::parse_object(command) != nullptr);
                           require(command.size() < 512);
                           return true;
                         },
                         [](const std::array<std::int16_t, 3>& speeds) {
                           for (const std::int16_t speed : speeds) {
                             require(speed >= -4000 && speed <= 4000);
                           }
                           return true;
                         }});
  hub.each_second(true, Clock::now());
  static_cast<void>(hub.order(text, Clock::now()));
  const auto peer = hub.open_control({"10.0.0.9", true});
  static_cast<void>(peer->received(R"({"type":"take"})"));
  static_cast<void>(peer->received(text));
  hub.pass_time(Clock::now() + std::chrono::hours(1));
  while (const auto message = peer->next()) {
    const std::string said(message->head.begin(), message->head.end());
    require(nimbus::ctl::parse_object(said) != nullptr);
  }
  return 0;
}
