#include "tools/sim/camera_picture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace nimbus::sim {
namespace {

using tools::format_text;
using Arguments = std::vector<std::string>;

Arguments ffmpeg(std::initializer_list<Arguments> parts) {
  Arguments all{"ffmpeg", "-hide_banner", "-loglevel", "error"};
  for (const Arguments& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// Sky above, ground below, a line each 15 degrees, and something to know each direction by: to the
/// front, to the right, behind, to the left, above and below.
constexpr const char* kPanorama =
    "gradients=s=2048x512:c0=0x1a4a8a:c1=0xb8d8f0:x0=0:y0=0:x1=0:y1=511:r=1[sky];"
    "gradients=s=2048x512:c0=0x6a8a4a:c1=0x2a2018:x0=0:y0=0:x1=0:y1=511:r=1[ground];"
    "[sky][ground]vstack,drawgrid=w=2048/24:h=1024/12:c=white@0.35[world];"
    "testsrc=s=288x176:r=1[front];smptehdbars=s=288x176:r=1[right];"
    "mandelbrot=s=288x176:r=1[back];rgbtestsrc=s=288x176:r=1[left];"
    "testsrc2=s=144x96:r=1,tile=2x1[beside];"
    "pal75bars=s=176x112:r=1,rotate=PI/5:c=none[tower];"
    "sierpinski=s=1024x128:r=1[below];"
    "[world][front]overlay=880:424[a];[a][right]overlay=1392:440[b];"
    "[b][back]overlay=1904:424[c];[c][left]overlay=368:440[d];"
    "[d][beside]overlay=1184:380:eof_action=repeat[e];[e][tower]overlay=660:330[f];"
    "[f][below]overlay=512:860,format=yuv420p";

Arguments painter() {
  return ffmpeg({{"-f", "lavfi", "-i", kPanorama, "-frames:v", "1", "-f", "rawvideo", "-"}});
}

/// 25 pictures a second at a rate that datagrams of 1400 bytes carry to ten viewers.
Arguments coder() {
  const std::string size = format_text("%zux%zu", Scene::kWidth, Scene::kHeight);
  return ffmpeg(
      {{"-fflags", "nobuffer", "-f", "rawvideo", "-pix_fmt", "yuv420p", "-s", size},
       {"-r", "25", "-probesize", "32", "-i", "-", "-fps_mode", "passthrough"},
       {"-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-threads", "1"},
       {"-b:v", "600k", "-maxrate", "600k", "-bufsize", "300k", "-g", "25"},
       {"-flush_packets", "1", "-f", "h264", "-"}});
}

}  // namespace

CameraPicture::CameraPicture() : painter_(painter()), coder_(coder()) {
  // A whole picture, so that it is handed over at once.
  constexpr int kPipe = 1024 * 1024;
  fcntl(coder_.input().get(), F_SETPIPE_SZ, kPipe);
}

/// Takes what there is of the panorama; whether it is whole.
bool CameraPicture::paint() {
  while (painted_ < Panorama::kBytes) {
    const ssize_t part = ::read(painter_->output().get(), panorama_.planes.data() + painted_,
                                Panorama::kBytes - painted_);
    if (part == 0) {
      throw tools::Failure("ffmpeg made no panorama; expected one with its own sources");
    }
    if (part < 0) return false;
    painted_ += static_cast<std::size_t>(part);
  }
  painter_.reset();
  scene_.emplace(std::move(panorama_));
  return true;
}

void CameraPicture::pass(double seconds, const CameraModel& camera) {
  if (!scene_ && !paint()) return;
  feed();
  if (seconds < due_) return;
  due_ += kPeriod;
  // After a stop of the whole process, only the present counts.
  if (due_ < seconds) due_ = seconds + kPeriod;
  if (fed_ < picture_.size()) return;
  picture_ = scene_->render(view_of(camera));
  fed_ = 0;
  feed();
}

void CameraPicture::feed() {
  while (fed_ < picture_.size()) {
    const ssize_t written =
        write(coder_.input().get(), picture_.data() + fed_, picture_.size() - fed_);
    if (written < 0 && errno == EPIPE)
      throw tools::Failure("ffmpeg has ended; expected it to go on");
    if (written <= 0) return;
    fed_ += static_cast<std::size_t>(written);
  }
}

std::array<pollfd, 2> CameraPicture::events() const {
  const bool more = fed_ < picture_.size();
  if (painter_) return {{{painter_->output().get(), POLLIN, 0}, {-1, 0, 0}}};
  return {{{coder_.output().get(), POLLIN, 0}, {more ? coder_.input().get() : -1, POLLOUT, 0}}};
}

std::vector<std::uint8_t> CameraPicture::read(std::size_t size) {
  std::vector<std::uint8_t> piece(size);
  const ssize_t part = ::read(coder_.output().get(), piece.data(), piece.size());
  if (part == 0) throw tools::Failure("ffmpeg has ended; expected it to go on");
  piece.resize(part > 0 ? static_cast<std::size_t>(part) : 0);
  return piece;
}

}  // namespace nimbus::sim
