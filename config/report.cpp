#include "config/report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "base/text_builder.h"
#include "config/config.h"
#include "config/fields.h"
#include "config/interface_codes.h"
#include "config/interfaces.h"
#include "config/report_items.h"

namespace nimbus {
namespace {

constexpr std::size_t kInterfaceListSize = 1024;

void add_name(TextBuilder& report, std::string_view name) { report.add("\"").add(name).add("\":"); }

void add_quoted(TextBuilder& report, std::string_view text) {
  report.add("\"").add(text).add("\"");
}

void add_item(TextBuilder& report, const ReportItem& item, Config& config) {
  const ConfigField& field = *item.key;
  add_name(report, item.name);
  if (field.byte != nullptr) {
    report.add(std::int32_t{config.*field.byte});
  } else if (field.number != nullptr) {
    report.add(config.*field.number);
  } else {
    std::array<char, kLongestConfigText> buffer;
    const std::string_view text = field.text(config).copy_to(buffer);
    add_quoted(report, item.as == ReportAs::interface ? interface_code(text) : text);
  }
  report.add(",");
}

}  // namespace

std::int32_t config_report(std::span<char> buffer) noexcept {
  std::fill(buffer.begin(), buffer.end(), '\0');
  Config& config = *config_get();
  TextBuilder report(buffer);
  report.add("{\"app\":\"nimbus\",");
  for (const ReportItem& item : kReportItems) add_item(report, item, config);
  add_name(report, "version");
  add_quoted(report, config.service_version.copy().view());
  report.add(",");
  add_name(report, "ifaces");
  std::array<char, kInterfaceListSize> list;
  TextBuilder interfaces(list);
  iface_list_json(interfaces);
  report.add("[").add(interfaces.view()).add("]");
  const auto length = static_cast<std::int32_t>(report.view().size());
  report.add("}");
  return length;
}

}  // namespace nimbus
