// Anybody on the network can send these. Values are stored as they come, bounded by their fields;
// none of them ever enters a shell command.
#include "config/commands.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/json.h"
#include "base/log.h"
#include "base/shell.h"
#include "base/text_builder.h"
#include "base/word_table.h"
#include "config/card.h"
#include "config/config.h"
#include "config/fields.h"
#include "config/hdmi_modes.h"
#include "config/interface_codes.h"
#include "config/report.h"
#include "config/stream_sizes.h"
#include "config/wireless.h"
#include "config/writer.h"
#include "display/region.h"

namespace nimbus {
namespace {

constexpr std::size_t kReportSize = 65'000;
constexpr std::size_t kScanSize = 60'000;
constexpr unsigned kHdmiModeSettlesS = 1;
constexpr int kExitRestart = 3;

ConfigCommandHooks command_hooks{};

/// The members of a command. They live as long as the parsed text.
class Arguments {
 public:
  explicit Arguments(const JsonObject& json) noexcept : json_(json) {}

  [[nodiscard]] const char* cmd() const { return json_.text_or_empty("cmd"); }
  [[nodiscard]] const char* name() const { return json_.text_or_empty("name"); }
  [[nodiscard]] const char* param() const { return json_.text_or_empty("param"); }

  /// The n-th value, 1 to 12.
  [[nodiscard]] const char* value(int n = 1) const {
    static constexpr std::array kNames{"value",  "value2",  "value3",  "value4",
                                       "value5", "value6",  "value7",  "value8",
                                       "value9", "value10", "value11", "value12"};
    return json_.text_or_empty(kNames[static_cast<std::size_t>(n - 1)]);
  }

  /// The n-th value as a flag of the file.
  [[nodiscard]] const char* yes_or_no(int n) const { return on(n) ? "1" : "0"; }

  /// Whether the n-th value says yes.
  [[nodiscard]] bool on(int n = 1) const {
    const std::string_view text = value(n);
    return text == "1" || text == "true";
  }

 private:
  const JsonObject& json_;
};

void store(ConfigKey key, const char* value) {
  store_config_field(*key, value, command_hooks.publish_channel_map);
}

void reset_receiver() { display_region()->rc_status = 0; }

// --- Settings with steps of their own ----------------------------------------------------------

constexpr const char* kEndRcReader = "killall -q rcin";
constexpr const char* kEndPictures = "killall -q hud usb-receiver wireless-receiver display";
constexpr const char* kEndStreams = "killall -q rtsp-server gst-launch-1.0";

void set_receiver_modes(const Arguments& arguments) {
  print_parts({"Set RC1 mode ", arguments.value(1), ", RC2 mode ", arguments.value(2), "\n"});
  store("rc_input_mode", arguments.value(1));
  store("rc2_input_mode", arguments.value(2));
  config_save();
  run_shell(kEndRcReader);
  reset_receiver();
}

void set_hdmi_enabled(const Arguments& arguments) {
  config_get()->hdmi_enabled = arguments.on() ? 1 : 0;
  config_save();
  run_shell(arguments.on() ? "./scripts/hdmi-change.sh 1" : "./scripts/hdmi-change.sh 0");
  run_shell(kEndPictures);
}

void set_default_hdmi_mode(bool at_boot) {
  log_text("set default HDMI mode\n");
  run_shell("tvservice -p");
  if (at_boot) run_shell("./scripts/hdmi-mode.sh");
}

void set_explicit_hdmi_mode(const HdmiMode& mode, bool at_boot) {
  const char* const group = mode.group == HdmiGroup::cea ? "CEA" : "DMT";
  const int boot_group = mode.group == HdmiGroup::cea ? 1 : 2;
  log_text("set HDMI mode to %s %d\n", group, mode.mode);
  std::array<char, 64> command;
  run_shell(TextBuilder(command)
                .add("tvservice -e \"")
                .add(group)
                .add(" ")
                .add(mode.mode)
                .add("\"")
                .c_str());
  if (!at_boot) return;
  run_shell(TextBuilder(command)
                .add("./scripts/hdmi-mode.sh ")
                .add(boot_group)
                .add(" ")
                .add(mode.mode)
                .c_str());
}

/// For the running picture, and for the next boots where "value2" says so. Nothing is saved.
void set_hdmi_mode(const Arguments& arguments) {
  const HdmiMode* const found = hdmi_mode_lookup(arguments.value());
  const HdmiMode mode = found == nullptr ? HdmiMode{} : *found;
  if (mode.mode < 1) {
    set_default_hdmi_mode(arguments.on(2));
  } else {
    set_explicit_hdmi_mode(mode, arguments.on(2));
  }
  sleep(kHdmiModeSettlesS);
  run_shell(kEndPictures);
}

void set_video_resolution(const Arguments& arguments) {
  const StreamSize* const found = find_word(kStreamSizes, arguments.value());
  const StreamSize size = found == nullptr ? kDefaultStreamSize : *found;
  config_get()->video_width = size.width;
  config_get()->video_height = size.height;
  log_text("set video resolution %dx%d\n", size.width, size.height);
  config_save();
  run_shell(kEndStreams);
}

/// Stores the name of an interface code; any other code leaves the field.
template <std::size_t size>
void store_interface(SharedText<size>& field, std::string_view code) {
  if (const char* const name = interface_name(code)) field.assign(name);
}

/// All three networks at once: the camera's, the client's, the access point's.
void set_wifi(const Arguments& arguments) {
  const auto value = [&arguments](int n) { return arguments.value(n); };
  print_parts({"\nnetwork iface ", value(4), " ssid ", value(5), " pass ", value(6), "\n"});
  print_parts({"AP iface ", value(7), " ssid ", value(8), " pass ", value(9), " mode ", value(10),
               " channel ", value(11), " country ", value(12), "\n\n"});
  Config& config = *config_get();
  config.camera_ssid.assign(value(2));
  config.camera_psk.assign(value(3));
  store_interface(config.camera_iface, value(1));
  config.wifi_ssid.assign(value(5));
  config.wifi_psk.assign(value(6));
  store_interface(config.wifi_iface, value(4));
  config.ap_ssid.assign(value(8));
  config.ap_psk.assign(value(9));
  store_interface(config.ap_iface, value(7));
  static constexpr std::array<Word<std::int32_t>, 2> kBands{{{"2.4", 2}, {"5", 5}}};
  if (const std::int32_t* const band = find_word(kBands, value(10))) config.ap_mode = *band;
  store("ap_channel", value(11));
  store("ap_country", value(12));
  config_save();
  run_shell("touch /run/wlan.update");
}

// --- The settings ------------------------------------------------------------------------------

/// How a value is read: as the file's loader reads the field (a flag is then a number), or as a yes
/// or no of "1" or "true".
enum class Reads : std::uint8_t { like_file, yes_or_no };

struct Store {
  ConfigKey key;
  Reads reads = Reads::like_file;
};

/// What a setting stores, from "value", "value2" and "value3" in turn, and what follows the save.
struct Setting {
  std::string_view name;
  std::array<Store, 3> stores;
  const char* then = nullptr;  ///< command that ends the processes concerned
  bool resets_receiver = false;
  Shared<std::uint8_t> DisplayRegion::*shown = nullptr;  ///< the display's copy of the first one
};

constexpr auto kYesOrNo = Reads::yes_or_no;

constexpr const char* kEndHud = "killall -q hud";
constexpr const char* kEndTranscoding =
    "killall -q rtsp-server gst-launch-1.0 wireless-receiver usb-receiver";
constexpr const char* kEndDisplay = "killall -q display usb-receiver wireless-receiver";

constexpr auto kSettings = std::to_array<Setting>({
    // clang-format off
    {.name = "rcin_enabled", .stores = {{{"rc_input_enabled", kYesOrNo}}},
     .then = kEndRcReader, .resets_receiver = true},
    {.name = "rcin_map", .stores = {{{"rc_input_map"}}},
     .then = kEndRcReader, .resets_receiver = true},
    {.name = "rcin_speed",
     .stores = {{{"rc_input_speed_pan"}, {"rc_input_speed_tilt"}, {"rc_input_speed_dutch"}}}},
    {.name = "rcin_pan", .stores = {{{"rc_input_speed_pan"}}}},
    {.name = "rcin_tilt", .stores = {{{"rc_input_speed_tilt"}}}},
    {.name = "rcin_dutch", .stores = {{{"rc_input_speed_dutch"}}}},
    {.name = "rcin_pan_inv", .stores = {{{"rc_input_inverse_pan"}}}},
    {.name = "rcin_tilt_inv", .stores = {{{"rc_input_inverse_tilt"}}}},
    {.name = "rcin_dutch_inv", .stores = {{{"rc_input_inverse_dutch"}}}},
    {.name = "rcin_exp", .stores = {{{"rc_input_exp", kYesOrNo}}},
     .then = kEndRcReader, .resets_receiver = true},
    {.name = "rcin_abs", .stores = {{{"rc_input_abs", kYesOrNo}}}},
    {.name = "internal_camera_enabled", .stores = {{{"internal_camera_enabled", kYesOrNo}}},
     .then = kEndCamera, .shown = &DisplayRegion::internal_camera_enabled},
    {.name = "internal_camera_fullscreen", .stores = {{{"internal_camera_fullscreen", kYesOrNo}}},
     .then = kEndCamera, .shown = &DisplayRegion::internal_camera_fullscreen},
    {.name = "osd_enabled", .stores = {{{"osd_enabled", kYesOrNo}}},
     .shown = &DisplayRegion::osd_enabled},
    {.name = "osd_borders", .stores = {{{"osd_border_width"}, {"osd_border_height"}}},
     .then = kEndPictures},
    {.name = "osd_offset", .stores = {{{"osd_top_offset"}, {"osd_bottom_offset"}}},
     .then = kEndPictures},
    {.name = "osd_top_offset", .stores = {{{"osd_top_offset"}}}, .then = kEndHud},
    {.name = "osd_bottom_offset", .stores = {{{"osd_bottom_offset"}}}, .then = kEndHud},
    {.name = "video_bitrate", .stores = {{{"video_bitrate"}}}, .then = kEndStreams},
    {.name = "video_transcode_enabled", .stores = {{{"video_transcode_enabled"}}},
     .then = kEndTranscoding},
    {.name = "disable_video_stream", .stores = {{{"disable_video_stream"}}}},
    {.name = "video_hflip", .stores = {{{"video_hflip"}}}, .then = kEndDisplay},
    {.name = "video_vflip", .stores = {{{"video_vflip"}}}, .then = kEndDisplay},
    // clang-format on
});

constexpr std::array<Word<void (*)(const Arguments&)>, 5> kOwnSteps{{
    {"rcin_mode", set_receiver_modes},
    {"hdmi_enabled", set_hdmi_enabled},
    {"hdmimode", set_hdmi_mode},
    {"video_resolution", set_video_resolution},
    {"wifi", set_wifi},
}};

void change(const Setting& setting, const Arguments& arguments) {
  if (setting.shown != nullptr) display_region()->*setting.shown = arguments.on() ? 1 : 0;
  int n = 0;
  for (const Store& each : setting.stores) {
    ++n;
    if (!each.key) break;
    const bool yes_or_no = each.reads == Reads::yes_or_no;
    store(each.key, yes_or_no ? arguments.yes_or_no(n) : arguments.value(n));
  }
  config_save();
  if (setting.then != nullptr) run_shell(setting.then);
  if (setting.resets_receiver) reset_receiver();
}

// --- The commands ------------------------------------------------------------------------------

void update_param(const Arguments& arguments) {
  print_parts({"Need to update param ", arguments.name(), " to ", arguments.value(1), ", ",
               arguments.value(2), "\n"});
  const std::string_view name = arguments.name();
  if (const auto* const steps = find_word(kOwnSteps, name)) {
    (*steps)(arguments);
    return;
  }
  for (const Setting& setting : kSettings) {
    if (setting.name == name) change(setting, arguments);
  }
}

void send_report(const Arguments& /*unused*/) {
  static std::array<char, kReportSize> report;
  log_text("config request\n");
  config_report(report);
  command_hooks.send_to_viewers(report.data());
}

void scan_networks(const Arguments& arguments) {
  static std::array<char, kScanSize> list_buffer;
  static std::array<char, kScanSize> reply_buffer;
  if (std::string_view(arguments.param()) != "scan") return;
  const std::string_view code = arguments.value();
  if (code == kNoInterfaceCode) return;
  const char* const found = interface_name(code);
  const char* const iface = found == nullptr ? "" : found;
  log_text("scan Wi-Fi on %s\n", iface);
  TextBuilder list(list_buffer);
  wifi_scan(iface, list);
  TextBuilder reply(reply_buffer);
  reply.add(R"({"cmd":"wlanscan","param":")")
      .add(code)
      .add(R"(","value":")")
      .add(list.view())
      .add("\"}");
  log_parts({"scan results: ", reply.view(), "\n"});
  command_hooks.send_to_viewers(reply.view());
}

void recalibrate_receiver() {
  {
    const CardChange card;
    make_writable(card);
    run_shell("rm -f /boot/rcin.cal");
    mount_afresh(card);
  }
  run_shell(kEndRcReader);
}

void control_receiver(const Arguments& arguments) {
  const std::string_view name = arguments.name();
  if (name == "recalibrate") recalibrate_receiver();
  if (name == "showchannels") display_region()->show_channels = arguments.on() ? 1 : 0;
}

void reboot(const Arguments& /*unused*/) { run_shell("reboot"); }
void shut_down(const Arguments& /*unused*/) { run_shell("shutdown"); }

/// Its supervisor starts the service again.
void restart(const Arguments& /*unused*/) { std::exit(kExitRestart); }

constexpr std::array<Word<void (*)(const Arguments&)>, 7> kCommands{{
    {"configrequest", send_report},
    {"wlan", scan_networks},
    {"reboot", reboot},
    {"restart", restart},
    {"shutdown", shut_down},
    {"rc", control_receiver},
    {"updateparam", update_param},
}};

}  // namespace

void init_config_commands(const ConfigCommandHooks& hooks) noexcept { command_hooks = hooks; }

void config_parse_command(const char* text) noexcept {
  print_parts({"config_parse_command ", text, "\n"});
  const JsonObject json(text);
  const Arguments arguments(json);
  if (const auto* const command = find_word(kCommands, arguments.cmd())) (*command)(arguments);
}

}  // namespace nimbus
