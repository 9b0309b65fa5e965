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

constexpr unsigned kPeriodS = 1;

// Status messages: a type byte and six values.
//   5  source, state (2: connected, 0: not)
//   6  flags (below), viewer count, 0, 0, RC receiver state
//  11  version (three bytes), product variant
constexpr std::uint8_t kSourceStatus = 5;
constexpr std::uint8_t kFlagsStatus = 6;
constexpr std::uint8_t kVersionStatus = 11;

constexpr std::uint8_t kCameraDataSource = 0;
constexpr std::uint8_t kVideoSource = 1;
constexpr std::uint8_t kSourceConnected = 2;

constexpr unsigned kAlwaysFlag = 1U << 0;
constexpr unsigned kAccessPointFlagBit = 1;
constexpr unsigned kHdmiFlagBit = 2;
constexpr unsigned kCameraDataFlagBit = 4;

constexpr std::uint8_t kProductVariant = 2;

void send_source_status(std::uint8_t source, std::uint8_t connected) {
  const std::uint8_t state = connected != 0 ? kSourceConnected : 0;
  send_status(kSourceStatus, {source, state});
}

void send_flags_status(const DisplayRegion& display, const Config& config) {
  const unsigned flags = kAlwaysFlag | unsigned{config.ap_running} << kAccessPointFlagBit |
                         unsigned{config.hdmi_enabled} << kHdmiFlagBit |
                         unsigned{config.data_connected} << kCameraDataFlagBit;
  send_status(kFlagsStatus,
              {static_cast<std::uint8_t>(flags), display.viewer_count, 0, 0, display.rc_status, 0});
}

void send_version_status() {
  send_status(kVersionStatus, {kVersionMajor, kVersionMinor, kVersionPatch, kProductVariant});
}

void probe_access_point(Config& config) {
  config.ap_running = run_shell("pidof hostapd > /dev/null") == 0 ? 1 : 0;
}

}  // namespace

void run_status_loop(const DisplayRegion& display, Config& config) {
  for (;;) {
    check_viewer_timeouts();
    check_sources();
    check_telemetry_timeouts();
    send_source_status(kCameraDataSource, display.data_connected);
    send_source_status(kVideoSource, display.video_connected);
    probe_access_point(config);
    send_flags_status(display, config);
    send_version_status();
    tell_alive();
    sleep(kPeriodS);
  }
}

}  // namespace nimbus
