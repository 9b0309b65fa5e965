#include "tools/web/orders.h"

#include <algorithm>
#include <span>
#include <string_view>

#include "tools/common/failure.h"
#include "tools/ctl/commands.h"
#include "tools/ctl/json.h"
#include "tools/ctl/settings.h"
#include "tools/ctl/viewer_link.h"

namespace nimbus::web {
namespace {

using ctl::member;
using tools::Failure;

std::vector<std::string> texts_of(const cJSON* list, const char* name) {
  if (cJSON_IsArray(list) == 0) throw Failure(std::string(name) + " is no list; expected texts");
  std::vector<std::string> texts;
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, list) {
    if (cJSON_IsString(item) == 0) {
      throw Failure(std::string(name) +
                    " has something that is not a text; expected texts, also for numbers");
    }
    texts.emplace_back(item->valuestring);
  }
  return texts;
}

/// What fits the service's mailbox.
QueuedCommand checked(std::string text) {
  static_cast<void>(ctl::command_payload(text));
  return {.text = std::move(text)};
}

QueuedCommand ask_report() {
  return {.text = std::string(ctl::kReportRequest), .awaits = Reply::report, .follows = true};
}

// Either sets the same speed of the service.
constexpr std::string_view kMove = "gimbal move";
constexpr std::string_view kSpeed = "gimbal speed";

/// Whether a command moves the gimbal until told otherwise, or ends that; nothing for any other.
std::optional<bool> moves(const ctl::Command& command, std::span<const std::string> words) {
  if (command.words != kMove && command.words != kSpeed) return std::nullopt;
  const auto speeds = words.subspan(ctl::words_of(command.words).size());
  return std::any_of(speeds.begin(), speeds.end(), [](const std::string& speed) {
    return ctl::whole_integer(speed).value_or(0) != 0;
  });
}

Orders command_orders(const cJSON* order) {
  const auto words = texts_of(member(order, "words"), "words");
  if (words.empty()) throw Failure("no words; expected a command such as [\"iso\",\"400\"]");
  const auto all = ctl::all_commands();
  if (std::none_of(all.begin(), all.end(),
                   [&words](const auto& row) { return ctl::first_word(row) == words.front(); })) {
    throw Failure("no command '" + words.front() + "'; expected one of /api/commands");
  }
  const ctl::Command& command = ctl::find_command(words);
  QueuedCommand queued = checked(ctl::json_for(command, words, false));
  if (command.asks == ctl::Asks::yes && cJSON_IsTrue(member(order, "confirmed")) == 0) {
    throw Failure(std::string(command.words) + " would " + std::string(command.help) +
                  "; expected \"confirmed\":true as a sign that you mean it");
  }
  queued.busy = command.busy;
  queued.moves = moves(command, words);
  return {queued};
}

Orders setting_orders(const cJSON* order, const cJSON* report) {
  const std::string name = ctl::member_text(order, "name");
  const auto values = texts_of(member(order, "values"), "values");
  if (name == "wifi" && report == nullptr) {
    throw Failure("the networks are not known yet; try again in a moment");
  }
  // What the setting has become is seen by its report.
  return {checked(ctl::json_for_setting(name, values, false, report)), ask_report()};
}

Orders scan_orders(const cJSON* order) {
  return {
      {.text = ctl::json_for_scan(ctl::member_text(order, "interface")), .awaits = Reply::scan}};
}

}  // namespace

Orders orders_of(const cJSON* order, const cJSON* report) {
  if (member(order, "words") != nullptr) return command_orders(order);
  if (member(order, "name") != nullptr) return setting_orders(order, report);
  if (member(order, "interface") != nullptr) return scan_orders(order);
  throw Failure("no order; expected words, name and values, or interface");
}

std::string order_to_rest() {
  const std::vector<std::string> words{"gimbal", "speed", "0", "0", "0"};
  return ctl::json_for(ctl::find_command(words), words, false);
}

}  // namespace nimbus::web
