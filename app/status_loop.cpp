#include "app/status_loop.h"

#include <unistd.h>

#include <array>
#include <cstdint>

#include "app/supervisor_client.h"
#include "app/version.h"
#include "base/shell.h"
#include "control/control.h"
#include "net/sources.h"
#include "net/viewers.h"

namespace nimbus {
namespace {

constexpr unsigned kPauseS = 1;

constexpr std::uint8_t kProductVariant = 2;

void send_source_status(std::uint8_t source, std::uint8_t connected) {
  const std::uint8_t state = connected != 0 ? ConnectionMessage::kConnected : 0;
  send_status(ToViewer::connection, {source, state});
}

void send_flags_status(const DisplayRegion& display, const Config& config) {
  using Flags = FlagsMessage;
  const unsigned flags = 1U << Flags::always.bit |
                         unsigned{config.ap_running} << Flags::access_point.bit |
                         unsigned{config.hdmi_enabled} << Flags::hdmi.bit |
                         unsigned{config.data_connected} << Flags::camera_data.bit;
  send_status(ToViewer::flags,
              {static_cast<std::uint8_t>(flags), display.viewer_count, 0, 0, display.rc_status, 0});
}

void send_version_status() {
  send_status(ToViewer::version, {kVersionMajor, kVersionMinor, kVersionPatch, kProductVariant});
}

void probe_access_point(Config& config) {
  config.ap_running = run_shell("pidof hostapd > /dev/null") == 0 ? 1 : 0;
}

}  // namespace

void status_round(const DisplayRegion& display, Config& config) noexcept {
  check_viewer_timeouts();
  check_sources();
  check_telemetry_timeouts();
  send_source_status(ConnectionMessage::kCameraData, display.data_connected);
  send_source_status(ConnectionMessage::kVideo, display.video_connected);
  probe_access_point(config);
  send_flags_status(display, config);
  send_version_status();
  tell_alive();
}

void run_status_loop(const DisplayRegion& display, Config& config) noexcept {
  for (;;) {
    status_round(display, config);
    sleep(kPauseS);
  }
}

}  // namespace nimbus
