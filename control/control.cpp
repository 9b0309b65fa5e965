#include "control/control.h"

#include <unistd.h>

#include <array>
#include <cstdint>

#include "base/clock.h"
#include "base/log.h"
#include "base/shared.h"
#include "base/thread.h"
#include "base/ticker.h"
#include "base/wire.h"
#include "camera/camera.h"
#include "config/commands.h"
#include "config/config.h"
#include "control/interpreter.h"
#include "control/rc_input.h"
#include "control/speed_mixer.h"
#include "display/command_handover.h"
#include "display/region.h"
#include "net/viewers.h"

namespace nimbus {
namespace {

// --- Policy ------------------------------------------------------------------------------------
constexpr std::int64_t kSpeedStreamPeriodNs = 30'000'000;
constexpr useconds_t kControlPauseUs = 50'000;
// The camera refocuses on every point that it gets: a moving one is sent only where it comes to
// rest.
constexpr std::uint32_t kFocusRestMs = 200;
constexpr std::uint32_t kRcReportPeriodMs = 500;
constexpr std::uint32_t kTelemetryTimeoutMs = 3000;

DisplayRegion* display = nullptr;
const Config* config = nullptr;
Shared<std::uint32_t> focus_pending;   // now_ms when the focus point was moved, 0: it is sent
Shared<std::uint32_t> last_rc_report;  // now_ms

// --- Control thread ----------------------------------------------------------------------------

void take_command() {
  const auto text = command_handover.take(display->command_mailbox);
  if (text.view().empty()) return;
  // Each acts on the commands that it knows.
  config_parse_command(text.c_str());
  interpret_command(text.c_str());
}

void send_rested_focus_point() {
  const std::uint32_t moved = focus_pending;
  if (moved == 0 || age_ms(focus_pending) <= kFocusRestMs) return;
  // A point that is moved again meanwhile stays pending.
  if (!focus_pending.replace(moved, 0)) return;
  const double x = display->focus_point_x;
  const double y = display->focus_point_y;
  // The stick's vertical axis points up, the picture's down.
  camera_set_focus_point(static_cast<float>(x), static_cast<float>(1.0 - y));
}

void send_rc_report() {
  if (config->rc_input_enabled == 0 || age_ms(last_rc_report) <= kRcReportPeriodMs) return;
  last_rc_report = now_ms();
  const auto& channels = display->rc_channel_values;
  using Report = RcChannelsMessage;
  std::array<std::uint8_t, Report::kSize> report{type_of(ToViewer::rc_channels)};
  put(report, Report::rc_status, display->rc_status);
  put(report, Report::count, static_cast<std::uint8_t>(channels.size()));
  for (std::size_t i = 0; i < channels.size(); ++i) {
    put(report, Report::channels.word(i), channels[i]);
  }
  broadcast(report, FrameKind::data);
}

void* control_thread(void* /*unused*/) noexcept {
  for (;;) {
    take_command();
    send_rested_focus_point();
    send_rc_report();
    usleep(kControlPauseUs);
  }
}

// --- Speed stream thread -----------------------------------------------------------------------

void* speed_stream_thread(void* /*unused*/) noexcept {
  Ticker ticker(kSpeedStreamPeriodNs);
  for (;;) {
    stream_speed(display->orientation_lock != 0);
    ticker.wait();
  }
}

// --- Telemetry that stops coming ---------------------------------------------------------------

/// Clears a time stamp of telemetry that has stopped coming, and says so.
void expire(Shared<std::uint32_t>& stamp, const char* text) {
  const std::uint32_t last = stamp;
  if (last == 0 || age_ms(stamp) <= kTelemetryTimeoutMs) return;
  if (stamp.replace(last, 0)) log_text("%s", text);
}

}  // namespace

void init_control() noexcept {
  log_text("Init control\n");
  display = display_region();
  config = config_get();
  display->focus_point_x = 0.5;
  display->focus_point_y = 0.5;
  start_thread(rc_input_thread);
  start_thread(speed_stream_thread);
  start_thread(control_thread);
}

void focus_point_moved() noexcept { focus_pending.store_release(now_ms()); }

void check_telemetry_timeouts() noexcept {
  expire(display->tracking_ms, "Tracking lost\n");
  expire(display->histogram_ms, "Histogram lost\n");
}

}  // namespace nimbus
