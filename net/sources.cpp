#include "net/sources.h"

#include "base/log.h"
#include "config/config.h"
#include "display/region.h"
#include "net/viewers.h"

namespace nimbus {
namespace {

// A burst of 64 datagrams of the largest size, with the kernel's own bookkeeping for each, must
// wait while ten viewers are served.
constexpr int kVideoQueueBytes = 4 * 1024 * 1024;

// The camera's reports for seconds.
constexpr int kDataQueueBytes = 1024 * 1024;

UdpLink data_link;
UdpLink video_link;
DisplayRegion* display = nullptr;
Config* config = nullptr;
CameraDataHandler camera_data_handler = nullptr;

void set_data_connected(std::uint8_t connected) {
  display->data_connected = connected;
  config->data_connected = connected;
}

void data_found() {
  log_text("Data found\n");
  set_data_connected(1);
  display->telemetry_status_text.clear();
  display->product_name.clear();
  display->version_text.clear();
  display->reset_timer();
}

void data_lost() {
  log_text("Data lost\n");
  set_data_connected(0);
  display->telemetry_status_text.assign("telemetry disconnected");
  display->reset_timer();
}

void data_packet(const Datagram& datagram) {
  if (camera_data_handler != nullptr) camera_data_handler(datagram.bytes);
}

void mark_video_connected() {
  display->video_connected = 1;
  display->video_status_text.clear();
}

void video_found() {
  log_text("Video found\n");
  mark_video_connected();
}

void video_lost() {
  log_text("Video lost\n");
  display->video_connected = 0;
  display->video_status_text.assign("video disconnected");
}

void video_packet(const Datagram& datagram) {
  // On every datagram: one that races with the loss must not leave "disconnected" behind.
  mark_video_connected();
  if (config->disable_video_stream != 0) return;
  broadcast(datagram.bytes, FrameKind::video);
}

bool open_source(const char* name, UdpLink& link, const LinkPort& port) {
  log_text("Init %s source... ", name);
  const bool opened = link.open(port) == 0;
  log_text(opened ? "done\n" : "fail\n");
  return opened;
}

}  // namespace

int init_sources(CameraDataHandler on_camera_data) {
  display = display_region();
  config = config_get();
  camera_data_handler = on_camera_data;
  data_lost();
  video_lost();
  if (!open_source("data", data_link, {kDataPort, kDataQueueBytes})) return -1;
  if (!open_source("video", video_link, {kVideoPort, kVideoQueueBytes})) return -1;
  // What has arrived so far waits in the queues: the first datagram finds the source, whenever it
  // came, and does not say so in the middle of these texts.
  data_link.start({.packet = data_packet, .found = data_found, .lost = data_lost});
  video_link.start({.packet = video_packet, .found = video_found, .lost = video_lost});
  return 0;
}

void check_sources() noexcept {
  data_link.notice_silence();
  video_link.notice_silence();
}

const UdpLink& camera_link() noexcept { return data_link; }

}  // namespace nimbus
