#include "tools/ctl/hud.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include "base/unique_fd.h"
#include "control/rc_map.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/json.h"
#include "tools/ctl/output.h"
#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {
namespace {

constexpr std::chrono::milliseconds kFollowPeriod{50};

// --- The region --------------------------------------------------------------------------------

struct Unmap {
  void operator()(const DisplayRegion* region) const {
    munmap(const_cast<DisplayRegion*>(region), sizeof(DisplayRegion));
  }
};
using Mapping = std::unique_ptr<const DisplayRegion, Unmap>;

[[noreturn]] void refuse(const std::string& reason) {
  throw tools::Failure("cannot read the display region " + std::string(kDisplayRegionName) + ": " +
                       reason + "; expected a board on which the service has run");
}

Mapping map_region() {
  const UniqueFd fd(shm_open(kDisplayRegionName, O_RDONLY, 0));
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) != 0) refuse(std::strerror(errno));
  if (status.st_size < static_cast<off_t>(sizeof(DisplayRegion))) {
    refuse("it has " + std::to_string(status.st_size) + " bytes, not " +
           std::to_string(sizeof(DisplayRegion)));
  }
  void* const address = mmap(nullptr, sizeof(DisplayRegion), PROT_READ, MAP_SHARED, fd.get(), 0);
  if (address == MAP_FAILED) refuse(std::strerror(errno));
  return Mapping(static_cast<const DisplayRegion*>(address));
}

// --- Values ------------------------------------------------------------------------------------

template <std::size_t size>
Value value_of_field(const SharedText<size>& text) {
  return std::string(text.copy().view());
}
template <std::integral Int>
Value value_of_field(const Shared<Int>& number) {
  return static_cast<std::int64_t>(static_cast<Int>(number));
}
template <std::floating_point Float>
Value value_of_field(const Shared<Float>& number) {
  return rounded(static_cast<Float>(number));
}
template <std::integral Int, std::size_t size>
Value value_of_field(const std::array<Shared<Int>, size>& numbers) {
  std::vector<int> values(size);
  for (std::size_t i = 0; i < size; ++i) values[i] = static_cast<Int>(numbers[i]);
  return values;
}
template <std::size_t size>
Value value_of_field(const std::array<Shared<double>, size>& numbers) {
  std::string text;
  for (const auto& number : numbers) {
    if (!text.empty()) text += ' ';
    text += text_of(Value(rounded(number)));
  }
  return text;
}

Value yes_or_no(const Shared<std::uint8_t>& flag) { return flag != 0; }

std::string_view function_name(std::uint8_t code) {
  const auto* const found = std::find_if(
      kRcFunctionWords.begin(), kRcFunctionWords.end(),
      [code](const auto& row) { return static_cast<std::uint8_t>(row.value) == code; });
  return found == kRcFunctionWords.end() ? "-" : found->word;
}

/// As the configuration has it, with "-" for what drives nothing.
Value channel_map(const DisplayRegion& region) {
  std::string text;
  for (const auto& code : region.rc_channel_map) {
    if (!text.empty()) text += ',';
    text += function_name(code);
  }
  return text;
}

Value command_waiting(const DisplayRegion& region) { return region.command_mailbox.full(); }

// --- The fields --------------------------------------------------------------------------------

/// A field, under its own name.
struct Row {
  std::string_view name;
  Value (*value)(const DisplayRegion& region);
  std::string_view unit = {};
};

// clang-format off
#define BY(function, name) [](const DisplayRegion& region) { return function(region.name); }
#define FIELD(name) { #name, BY(value_of_field, name) }
#define FIELD_IN(name, unit) { #name, BY(value_of_field, name), unit }
#define FLAG(name) { #name, BY(yes_or_no, name) }
// clang-format on

constexpr auto kRows = std::to_array<Row>({
    FIELD(product_name),
    FIELD(version_text),
    FIELD(viewer_count),
    FLAG(data_connected),
    FLAG(video_connected),
    FIELD(telemetry_status_text),
    FIELD(video_status_text),
    FIELD_IN(gimbal_angle_1, "\u00B0"),
    FIELD_IN(gimbal_angle_2, "\u00B0"),
    FIELD_IN(gimbal_angle_3, "\u00B0"),
    FLAG(gimbal_flag),
    FIELD(status_629),
    FIELD(status_630),
    FIELD(status_631),
    FIELD(recording_state),
    FLAG(recording_reset),
    FIELD(timer_state),
    FIELD_IN(timer_start_ms, " ms"),
    FIELD_IN(timer_elapsed_ms, " ms"),
    FIELD(camera_mode),
    FIELD(camera_mode_text),
    FIELD(exposure_mode),
    FIELD(exposure_mode_text),
    FIELD(resolution),
    FIELD(resolution_text),
    FIELD(resolution_width),
    FIELD(resolution_height),
    FIELD(frame_rate_code),
    FIELD_IN(frame_rate, " fps"),
    FIELD(white_balance),
    FIELD(white_balance_text),
    FIELD_IN(colour_temperature, " K"),
    FIELD(aperture),
    FIELD(settings_728),
    FIELD(iso),
    FIELD(iso_code),
    FIELD(settings_736),
    FIELD(shutter_code),
    FIELD(shutter_text),
    FIELD(ev_code),
    FIELD(ev),
    FIELD(colour),
    FIELD(colour_text),
    FIELD(settings_789),
    FIELD(settings_790),
    FIELD(settings_791),
    FIELD(status_792),
    FIELD(status_793),
    FIELD(status_794),
    FIELD(status_796),
    FIELD(status_800),
    FIELD(status_804),
    FIELD(status_808),
    FIELD(photo_format),
    FIELD(photo_format_text),
    FLAG(lens_known),
    FIELD(lens_bit_0),
    FIELD(focus_mode),
    FIELD(lens_bit_2),
    FIELD_IN(zoom_ratio, " %"),
    FIELD(zoom_value),
    FIELD(focus_value_1),
    FIELD(focus_value_2),
    FLAG(lens_flag),
    FIELD(tracking_x),
    FIELD(tracking_y),
    FIELD(tracking_width),
    FIELD(tracking_height),
    FIELD_IN(tracking_ms, " ms"),
    FLAG(tracking_on),
    FIELD(histogram),
    FIELD_IN(histogram_ms, " ms"),
    FLAG(orientation_lock),
    FLAG(osd_enabled),
    FLAG(internal_camera_enabled),
    FLAG(internal_camera_fullscreen),
    FIELD(focus_point_x),
    FIELD(focus_point_y),
    FIELD(rc_status),
    FLAG(show_channels),
    FIELD(rc_channel_values),
    {"rc_channel_map", channel_map},
    FIELD(rc_function_assigned),
    FIELD(rc_function_centred),
    FIELD(rc_function_position),
    FLAG(menu_active),
    {"command_waiting", command_waiting},
});

#undef BY
#undef FIELD
#undef FIELD_IN
#undef FLAG

// --- Showing -----------------------------------------------------------------------------------

std::string json_of(const Fields& fields) {
  const Json object = empty_object();
  for (const Field& field : fields) add_value(object.get(), field.name, field.value);
  return line_of(object.get());
}

void print_field(const Field& field) {
  const std::string name =
      tools::format_text("%-28.*s", static_cast<int>(field.name.size()), field.name.data());
  print_line(name + text_of(field.value) + std::string(field.unit));
}

void print_fields(const Fields& fields, bool json) {
  if (json) {
    if (!fields.empty()) print_line(json_of(fields));
    return;
  }
  for (const Field& field : fields) print_field(field);
}

Fields changes(const Fields& before, const Fields& after) {
  Fields result;
  for (std::size_t i = 0; i < after.size(); ++i) {
    // As texts: NaN is not even equal to itself.
    if (text_of(after[i].value) != text_of(before[i].value)) result.push_back(after[i]);
  }
  return result;
}

}  // namespace

Fields decode_region(const DisplayRegion& region) {
  Fields fields;
  for (const Row& row : kRows) fields.push_back({row.name, row.value(region), row.unit});
  return fields;
}

void show_hud(const HudOptions& options) {
  const Mapping region = map_region();
  Fields shown = decode_region(*region);
  print_fields(shown, options.json);
  const auto end = end_after(options.seconds);
  while (options.follow && !interrupted() && Clock::now() < end) {
    std::this_thread::sleep_for(kFollowPeriod);
    Fields now = decode_region(*region);
    print_fields(changes(shown, now), options.json);
    shown = std::move(now);
    expect_reader();
  }
}

}  // namespace nimbus::ctl
