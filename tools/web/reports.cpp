#include "tools/web/reports.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "config/report_items.h"
#include "net/messages.h"
#include "tools/ctl/json.h"
#include "tools/ctl/messages.h"
#include "tools/web/json_text.h"

namespace nimbus::web {
namespace {

/// Where a field of a message goes. A field without a row keeps its name, in the first group that
/// the message has.
struct Row {
  std::string_view message;
  std::string_view field;
  std::string_view group;
  std::string_view member;
};

constexpr auto kRows = std::to_array<Row>({
    // clang-format off
    {"version",          "",              "service",   ""},
    {"camera_status",    "camera_mode",   "camera",    "mode"},
    {"recording_timer",  "",              "recording", ""},
    {"camera_settings",  "exposure_mode", "exposure",  "mode"},
    {"gimbal_angles",    "",              "gimbal",    ""},
    {"orientation",      "",              "gimbal",    ""},
    {"focus_values",     "",              "lens",      ""},
    {"lens_flag",        "",              "lens",      ""},
    {"zoom",             "",              "lens",      ""},
    {"flags",            "access_point",  "board",     "access_point"},
    {"flags",            "viewers",       "viewers",   "service"},
    {"flags",            "rc_status",     "rc",        "status"},
    {"rc_channels",      "rc_status",     "rc",        "status"},
    {"histogram",        "",              "histogram", ""},
    {"tracking",         "",              "tracking",  ""},
    // clang-format on
});

const Row* row_of(std::string_view message, std::string_view field) {
  const Row* first = nullptr;
  for (const Row& row : kRows) {
    if (row.message != message) continue;
    if (!row.field.empty() && row.field == field) return &row;
    if (first == nullptr) first = &row;
  }
  return first;
}

void take_fields(State& state, const ctl::Message& message, std::uint64_t now) {
  for (const ctl::Field& field : message.fields) {
    const Row* const row = row_of(message.name, field.name);
    if (row == nullptr) continue;
    state.set(row->group, row->field == field.name ? row->member : field.name,
              json_text(field.value));
    state.reported(row->group, now);
  }
}

void take_connection(State& state, const ctl::Message& message, std::uint64_t now) {
  const auto* const source = std::get_if<std::string>(&message.fields[0].value);
  const std::string_view group = *source == "video" ? "video" : "camera";
  state.set(group, "connected", json_text(message.fields[1].value));
  if (group == "camera") return;  // the group's own reports come from the camera
  state.reported(group, now);
}

void set_member(State& state, std::string_view group, std::string_view name, const cJSON* object) {
  const cJSON* const item = ctl::member(object, std::string(name).c_str());
  if (item != nullptr) state.set(group, name, ctl::line_of(item));
}

void take_report(State& state, const std::string& text, std::uint64_t now) {
  const ctl::Json report = ctl::parse_object(text);
  if (report == nullptr) return;
  for (const ReportItem& item : kReportItems) {
    // Whoever knows a pass phrase has it from elsewhere.
    if (!item.name.ends_with("_psk")) set_member(state, "settings", item.name, report.get());
  }
  set_member(state, "settings", "ifaces", report.get());
  state.reported("settings", now);
}

void take_scan(State& state, const std::string& text, std::uint64_t now) {
  const ctl::Json reply = ctl::parse_object(text);
  if (reply == nullptr) return;
  std::string list = "[";
  std::string names = ctl::member_text(reply.get(), "value");
  while (!names.empty()) {
    const auto comma = std::min(names.find(','), names.size());
    if (list.size() > 1) list += ',';
    list += quoted(names.substr(0, comma));
    names.erase(0, comma + 1);
  }
  state.set("wifi_scan", "interface", quoted(ctl::member_text(reply.get(), "param")));
  state.set("wifi_scan", "networks", list + "]");
  state.reported("wifi_scan", now);
}

}  // namespace

/// The camera's state is 2 while it records.
std::optional<bool> records(Bytes payload) {
  constexpr std::int64_t kRecords = 2;
  if (payload.empty() || payload[0] != type_of(ToViewer::recording_timer)) return std::nullopt;
  for (const ctl::Field& field : ctl::decode_message(payload).fields) {
    if (field.name == "state") return field.value == ctl::Value(kRecords);
  }
  return std::nullopt;  // it is cut
}

void take_message(State& state, Bytes payload, std::uint64_t now) {
  const ctl::Message message = ctl::decode_message(payload);
  if (message.name == "connection") return take_connection(state, message, now);
  if (message.name == "report") return take_report(state, message.json, now);
  if (message.name == "wifi_scan") return take_scan(state, message.json, now);
  if (const auto on = records(payload)) state.set("recording", "on", json_text(*on));
  take_fields(state, message, now);
}

void Reports::take(Bytes payload, Time now) {
  if (payload.empty()) return;
  constexpr unsigned kConnection = type_of(ToViewer::connection);
  constexpr unsigned kText = type_of(ToViewer::text);
  unsigned key = payload[0];
  if (key == kConnection && payload.size() > 1) key |= (payload[1] & 1U) << 8U;
  // A report and a scan's reply, which begins with its command.
  if (key == kText && payload.size() > 2) key |= unsigned{payload[2]} << 8U;
  Last& last = last_[key];
  last.payload.assign(payload.begin(), payload.end());
  last.time = now;
  last.read = false;
}

void Reports::read_into(State& state) {
  for (auto& [type, last] : last_) {
    if (last.read) continue;
    last.read = true;
    take_message(state, last.payload, millis_of(last.time));
  }
}

}  // namespace nimbus::web
