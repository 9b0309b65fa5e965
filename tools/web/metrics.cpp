// The figures for a monitor.
#include <cstdio>

#include "tools/common/version.h"
#include "tools/web/hub.h"
#include "tools/web/peers.h"

namespace nimbus::web {
namespace {

/// Text in Prometheus' format, metric by metric.
class Metrics {
 public:
  void counter(const char* name, const char* help, std::uint64_t value) {
    add(name, "counter", help, static_cast<double>(value));
  }
  void gauge(const char* name, const char* help, double value) { add(name, "gauge", help, value); }
  void info(const char* name, const char* help, const std::string& labels) {
    head(name, "gauge", help);
    text_ += std::string(name) + "{" + labels + "} 1\n";
  }
  std::string take() { return std::move(text_); }

 private:
  void head(const char* name, const char* type, const char* help) {
    text_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  void add(const char* name, const char* type, const char* help, double value) {
    std::array<char, 40> number;
    std::snprintf(number.data(), number.size(), "%.15g", value);
    head(name, type, help);
    text_ += std::string(name) + " " + number.data() + "\n";
  }
  std::string text_;
};

/// 1 for a member that is true.
double flag(const State& state, const char* group, const char* member) {
  return state.get(group, member) == "true" ? 1 : 0;
}

void add_state(Metrics& out, const State& state, bool linked) {
  out.info("nimbus_web_info", "The program.", "version=\"" + tools::version_text() + "\"");
  out.gauge("nimbus_service_up", "Whether the service has been heard lately.", linked ? 1 : 0);
  out.gauge("nimbus_camera_connected", "Whether camera data arrives.",
            flag(state, "camera", "connected"));
  out.gauge("nimbus_video_connected", "Whether video arrives.", flag(state, "video", "connected"));
  out.gauge("nimbus_recording", "Whether the camera records.", flag(state, "recording", "on"));
}

void add_stream(Metrics& out, const StreamCounts& counts) {
  out.counter("nimbus_video_datagrams_total", "Datagrams of video.", counts.datagrams);
  out.counter("nimbus_video_bytes_total", "Bytes of video.", counts.bytes);
  out.counter("nimbus_frame_gaps_total", "Places where frames of the service lack.", counts.gaps);
  out.counter("nimbus_frames_missing_total", "Frames of the service that lack.", counts.missing);
  out.counter("nimbus_pictures_total", "Pictures that were passed on.", counts.pictures);
  out.counter("nimbus_key_pictures_total", "Key pictures among them.", counts.key_pictures);
  out.counter("nimbus_pictures_discarded_total", "Pictures that were dropped after a loss.",
              counts.discarded);
  out.counter("nimbus_pictures_torn_total", "Pictures whose end was seen too early.", counts.torn);
}

void add_rtp(Metrics& out, const RtpOutput* rtp) {
  out.counter("nimbus_web_rtp_pictures_total", "Pictures that went out as RTP, whole.",
              rtp != nullptr ? rtp->sent() : 0);
  out.counter("nimbus_web_rtp_pictures_dropped_total", "Pictures that the way of RTP did not take.",
              rtp != nullptr ? rtp->dropped() : 0);
}

}  // namespace

std::string Hub::metrics(std::size_t connections, Time now) {
  refresh(now);
  std::size_t depth = 0;
  std::uint64_t dropped = dropped_;
  for (const VideoPeer* const peer : video_) {
    depth = std::max(depth, peer->reader().depth());
    dropped += peer->reader().dropped();
  }
  Metrics out;
  add_state(out, state_, linked_);
  add_stream(out, stream_.counts());
  out.counter("nimbus_web_pictures_dropped_total", "Pictures that slow browsers did not get.",
              dropped);
  add_rtp(out, rtp_);
  out.gauge("nimbus_web_connections", "Connections of browsers and programs.",
            static_cast<double>(connections));
  out.gauge("nimbus_web_video_browsers", "Browsers that get the picture.",
            static_cast<double>(video_.size()));
  out.gauge("nimbus_web_control_browsers", "Browsers that get the state.",
            static_cast<double>(control_.size()));
  out.gauge("nimbus_web_video_queue_pictures", "Pictures that wait for the slowest browser.",
            static_cast<double>(depth));
  out.counter("nimbus_web_commands_total", "Commands that went to the service.", queue_.sent());
  out.counter("nimbus_web_commands_refused_total", "Commands that were refused.", orders_refused_);
  out.gauge("nimbus_web_command_queue", "Commands that wait.", static_cast<double>(queue_.depth()));
  out.gauge("nimbus_web_lease_held", "Whether somebody drives.", lease_.holder() ? 1 : 0);
  out.gauge("nimbus_web_gimbal_moving", "Whether somebody moves the gimbal.",
            helm_.moving() ? 1 : 0);
  return out.take();
}

}  // namespace nimbus::web
