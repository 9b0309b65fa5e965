// The table of contents of the service: what starts, and in which order. Every module is started
// here and nowhere else, and this is the one file that knows them all.
#include "app/startup.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "app/status_loop.h"
#include "app/supervisor_client.h"
#include "app/version.h"
#include "base/log.h"
#include "config/commands.h"
#include "config/config.h"
#include "config/loader.h"
#include "config/writer.h"
#include "control/control.h"
#include "control/rc_map.h"
#include "control/speed_mixer.h"
#include "control/telemetry.h"
#include "display/region.h"
#include "net/sources.h"
#include "net/viewers.h"

namespace nimbus {
namespace {

/// The version's three numbers behind a prefix.
std::array<char, 20> version_text(const char* prefix) {
  std::array<char, 20> text;
  std::snprintf(text.data(), text.size(), "%s%d.%d.%d", prefix, kVersionMajor, kVersionMinor,
                kVersionPatch);
  return text;
}

void print_banner() {
  print_parts({"\033[1;37mTervado Nimbus ", version_text("v.").data(), "\033[0m\n"});
}

/// What the display draws until the first camera data arrives.
void show_splash(DisplayRegion& display) {
  display.product_name.assign("Tervado Nimbus");
  display.version_text.assign(version_text("v.").data());
}

/// Without its file the service goes on with zeroed settings: that way it can still be reached.
void load_config() {
  log_text("Loading config file... ");
  const bool loaded = config_load(parse_rc_input_map) == 0;
  log_text(loaded ? "done\n" : "failed\n");
  if (!loaded) config_is_not_the_cards();
}

/// The display learns these once, at start; later changes of the file do not refresh them.
void show_settings(DisplayRegion& display, const Config& config) {
  display.osd_enabled = config.osd_enabled;
  display.internal_camera_enabled = config.internal_camera_enabled;
  display.internal_camera_fullscreen = config.internal_camera_fullscreen;
}

}  // namespace

int run_service() {
  meet_supervisor();
  DisplayRegion* const display = map_display_region();
  if (display == nullptr) return EXIT_FAILURE;
  print_banner();
  show_splash(*display);
  load_config();
  Config* const config = config_get();
  config->service_version.assign(version_text("").data());
  show_settings(*display, *config);

  if (open_viewers_link(set_viewer_speed) == -1) return EXIT_FAILURE;
  if (init_sources(scan_camera_datagram) == -1) return EXIT_FAILURE;
  init_config_commands(
      {.publish_channel_map = parse_rc_input_map, .send_to_viewers = broadcast_text});
  init_control();
  tell_ready();
  run_status_loop(*display, *config);
}

}  // namespace nimbus
