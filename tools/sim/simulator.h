// The simulated camera on its sockets.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/progress_line.h"
#include "tools/common/udp_socket.h"
#include "tools/sim/camera_model.h"
#include "tools/sim/camera_picture.h"
#include "tools/sim/console.h"
#include "tools/sim/faults.h"
#include "tools/sim/frame_log.h"
#include "tools/sim/rc_reader.h"
#include "tools/sim/replay.h"
#include "tools/sim/reports.h"
#include "tools/sim/video.h"

namespace nimbus::sim {

struct Options {
  std::string host = "127.0.0.1";
  double seconds = 0;  ///< 0: no end
  bool reports = true;
  std::string video;            ///< empty: none; "-": standard input
  std::size_t datagram = 1400;  ///< bytes
  Pace pace = FramesPerSecond{25};
  bool loops = true;
  std::string rc;  ///< empty: no receiver
  FaultRates faults;
  std::uint64_t seed = 1;
  double lose_subject = 0;  ///< seconds; 0: never
  FrameLog::Detail detail = FrameLog::Detail::none;
  bool scene = false;                   ///< a picture that follows the gimbal
  std::optional<ReplayOptions> replay;  ///< in place of reports and video
};

/// Sends reports and video, takes commands, and plays a receiver until it is told to end.
class Simulator {
 public:
  /// Opens everything. Throws Failure or AlreadySaid.
  explicit Simulator(const Options& options);

  /// Returns after the summary. Throws Failure when the network cannot take what is sent.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  [[nodiscard]] double now() const;
  void step();
  void wait();
  [[nodiscard]] timespec longest_wait() const;
  [[nodiscard]] bool over() const;

  void send_reports();
  void send_frame(std::vector<std::uint8_t> frame);
  void send_sign_of_life();
  void send_video_file();
  void send_standard_input();
  void send_video(Bytes datagram);
  void send_replay();
  void send_picture();
  void show_progress();
  void refused();
  void look_for_refusal(short events, int socket);

  void take_frames();
  void take(Bytes datagram);
  void take_bad(const std::string& why, Bytes datagram);
  void end();

  Options options_;
  StopSignals signals_;
  Console console_;
  FrameLog log_;
  tools::UdpSocket data_;
  tools::UdpSocket video_;
  std::optional<VideoFile> file_;
  std::optional<RcPlayback> receiver_;
  std::optional<Replay> replay_;
  std::optional<CameraPicture> picture_;
  tools::ProgressLine progress_;
  double progress_due_ = 0;  // seconds

  CameraModel camera_;
  ReportEncoder encoder_;
  std::optional<Faults> faults_;
  std::vector<double> due_;  // seconds, by report
  double life_due_ = 0;      // seconds

  Clock::time_point start_;
  double at_ = 0;  // seconds of this step
  bool input_ended_ = false;
  std::optional<double> refused_at_;  // seconds

  std::uint64_t frames_ = 0;
  std::uint64_t bad_ = 0;
  std::uint64_t video_bytes_ = 0;
};

}  // namespace nimbus::sim
