#include "tools/ctl/config_commands.h"

#include <array>
#include <cstdio>

#include "config/interface_codes.h"
#include "config/report_items.h"
#include "tools/common/failure.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/json.h"
#include "tools/ctl/messages.h"
#include "tools/ctl/operate.h"
#include "tools/ctl/output.h"
#include "tools/ctl/settings.h"

namespace nimbus::ctl {
namespace {

// A save remounts the card; a scan listens on every channel.
constexpr std::chrono::seconds kReportPatience{10};
constexpr std::chrono::seconds kScanPatience{30};

/// Sends a command and waits for the JSON text of that kind. Throws Failure when it does not come;
/// empty when the tool shall end.
std::string ask(ViewerLink& link, const std::string& command, std::string_view kind,
                std::chrono::seconds patience) {
  link.command(command);
  const auto end = Clock::now() + patience;
  while (const auto frame = link.receive(end)) {
    if (frame->video) continue;
    Message message = decode_message(frame->payload);
    // A name with a quote in it makes any of them unreadable.
    if (message.name == kind || message.name == "json") return message.json;
  }
  if (interrupted()) return {};
  throw tools::Failure("the service does not answer the command " + command +
                       "; expected an answer within " + std::to_string(patience.count()) + " s");
}

std::string ask_report(ViewerLink& link) {
  return ask(link, std::string(kReportRequest), "report", kReportPatience);
}

Json parse_report(const std::string& text) {
  Json report = parse_object(text);
  if (report == nullptr && !text.empty()) {
    throw tools::Failure(
        "the report is no JSON, perhaps for a quote in the name of a network; expected what "
        "'config --json' can show");
  }
  return report;
}

/// What a person reads for an item: interfaces by their names.
std::string shown(const ReportItem& item, const cJSON* report) {
  std::string text = member_text(report, item.name);
  if (item.as != ReportAs::interface) return text;
  const char* const name = interface_name(text);
  return name == nullptr || *name == '\0' ? "none" : name;
}

void print_item(std::string_view key, std::string_view name, std::string_view text) {
  std::array<char, 64> start;
  std::snprintf(start.data(), start.size(), "%-27.*s %-14.*s ", static_cast<int>(key.size()),
                key.data(), static_cast<int>(name.size()), name.data());
  print_line(start.data() + std::string(text));
}

std::string addresses(const cJSON* report) {
  std::string list;
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(report, "ifaces")) {
    append_word(list, member_text(item, "name") + " " + member_text(item, "addr"));
  }
  return list;
}

bool print_changes(const cJSON* before, const cJSON* after) {
  bool any = false;
  for (const ReportItem& item : kReportItems) {
    const std::string old_text = shown(item, before);
    const std::string new_text = shown(item, after);
    if (old_text == new_text) continue;
    any = true;
    print_line(std::string((*item.key).key) + ": " + (old_text.empty() ? "(empty)" : old_text) +
               " -> " + (new_text.empty() ? "(empty)" : new_text));
  }
  return any;
}

}  // namespace

void show_config(const Connection& connection, bool json) {
  ViewerLink link(connection);
  const std::string text = ask_report(link);
  if (json) {
    if (!text.empty()) print_line(text);
    return;
  }
  const Json report = parse_report(text);
  if (report == nullptr) return;
  for (const ReportItem& item : kReportItems) {
    print_item((*item.key).key, item.name, shown(item, report.get()));
  }
  print_item("service", "version", member_text(report.get(), "version"));
  print_item("addresses", "ifaces", addresses(report.get()));
}

void set_config(const Connection& connection, const std::string& name,
                const std::vector<std::string>& values, bool force) {
  // What is wrong without the report is said before anything is asked.
  static_cast<void>(json_for_setting(name, values, force, nullptr));
  ViewerLink link(connection);
  const Json before = parse_report(ask_report(link));
  if (before == nullptr) return;
  const std::string text = json_for_setting(name, values, force, before.get());
  send_command(link, text, std::chrono::milliseconds{0});
  const Json after = parse_report(ask_report(link));
  if (after == nullptr) return;
  if (!is_stored(name)) {
    print_line(name + " was sent; the report does not show it");
  } else if (!print_changes(before.get(), after.get())) {
    print_line("nothing changed: " + name + " was so already");
  }
}

void scan_wifi(const Connection& connection, const std::string& interface) {
  const std::string command = json_for_scan(interface);
  ViewerLink link(connection);
  const std::string text = ask(link, command, "wifi_scan", kScanPatience);
  if (text.empty()) return;
  const Json reply = parse_object(text);
  if (reply == nullptr) {
    throw tools::Failure(
        "the scan's reply is no JSON, perhaps for a quote in a name; expected "
        "what 'watch' can show");
  }
  std::string list = member_text(reply.get(), "value");
  if (list.empty()) {
    print_line("no networks on " + interface);
    return;
  }
  for (;;) {
    const auto comma = list.find(',');
    print_line(list.substr(0, comma));
    if (comma == std::string::npos) return;
    list.erase(0, comma + 1);
  }
}

}  // namespace nimbus::ctl
