#include "tools/ctl/operate.h"

#include <algorithm>
#include <iostream>
#include <string_view>
#include <thread>

#include "tools/common/failure.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/json.h"

namespace nimbus::ctl {
namespace {

using std::chrono::milliseconds;

// The service looks for a command every 50 ms, and on a busy board later.
constexpr milliseconds kTaken{120};

// The service keeps a speed until it hears another; it is repeated because datagrams get lost, and
// the last for the same reason.
constexpr milliseconds kSpeedPeriod{100};
constexpr int kStops = 3;
constexpr milliseconds kStopPeriod{20};

void expect_object(const std::string& text) {
  if (parse_object(text) == nullptr || text.front() != '{') {
    throw tools::Failure("'" + text +
                         R"(' is no JSON object; expected one such as {"cmd":"shot"})");
  }
}

std::vector<std::string> input_lines() {
  std::vector<std::string> lines;
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

}  // namespace

void send_command(ViewerLink& link, const std::string& text, milliseconds busy) {
  link.command(text);
  link.pause(kTaken + busy);
}

void send_texts(const Connection& connection, const std::vector<std::string>& texts) {
  std::vector<std::string> all;
  for (const std::string& text : texts) {
    const auto more = text == "-" ? input_lines() : std::vector<std::string>{text};
    all.insert(all.end(), more.begin(), more.end());
  }
  std::for_each(all.begin(), all.end(), expect_object);
  ViewerLink link(connection);
  for (const std::string& text : all) {
    if (interrupted()) return;
    send_command(link, text, milliseconds{0});
  }
}

void operate(const Connection& connection, const std::vector<std::string>& arguments,
             const OperateOptions& options) {
  const Command& command = find_command(arguments);
  const std::string text = json_for(command, arguments, options.force);
  if (command.asks == Asks::yes && !options.yes) {
    throw tools::Failure(std::string(command.words) + " would " + std::string(command.help) +
                         "; expected --yes as a sign that you mean it");
  }
  ViewerLink link(connection);
  if (!interrupted()) send_command(link, text, command.busy);
}

void move_gimbal(const Connection& connection, const std::array<std::int16_t, 3>& pan_tilt_roll,
                 double seconds) {
  ViewerLink link(connection);
  if (interrupted()) return;
  const auto end = end_after(seconds);
  while (!interrupted() && Clock::now() < end) {
    link.speed(pan_tilt_roll);
    const auto rest = std::chrono::ceil<milliseconds>(end - Clock::now());
    link.pause(std::clamp(rest, milliseconds{0}, kSpeedPeriod));
  }
  for (int i = 0; i < kStops; ++i) {
    link.speed({0, 0, 0});
    std::this_thread::sleep_for(kStopPeriod);
  }
}

}  // namespace nimbus::ctl
