#include "tools/sim/simulator.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "net/sources.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace nimbus::sim {
namespace {

using tools::format_text;

/// Seconds between two steps at the most.
constexpr double kStep = 0.005;

/// Datagrams that a step sends or takes of a kind at the most: no more than a socket holds. What is
/// late goes with the next one.
constexpr int kAtOnce = 256;

constexpr std::string_view kStandardInput = "-";

RcScript read_script(const std::string& path) {
  const auto content = read_file(path);
  return parse_rc_script({reinterpret_cast<const char*>(content.data()), content.size()}, path);
}

bool any(const FaultRates& rates) {
  return rates.drop > 0 || rates.corrupt > 0 || rates.truncate > 0 || rates.repeat > 0;
}

}  // namespace

Simulator::Simulator(const Options& options)
    : options_(options),
      log_(console_, options.detail),
      data_(options.host, kDataPort),
      video_(options.host, kVideoPort),
      camera_(options.lose_subject) {
  if (!options.video.empty() && options.video != kStandardInput) {
    file_.emplace(options.video, options.datagram, options.pace, options.loops);
  }
  if (!options.rc.empty()) {
    RcScript script = read_script(options.rc);
    DisplayRegion* const display = map_display_region();
    if (display == nullptr) throw AlreadySaid();
    receiver_.emplace(std::move(script), *display);
  }
  if (options.scene) picture_.emplace();
  if (options.replay) replay_.emplace(*options.replay);
  if (any(options.faults)) faults_.emplace(options.faults, options.seed);
  for (const Report& report : reports()) due_.push_back(report.start_ms / 1000.0);
}

double Simulator::now() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

bool Simulator::over() const {
  return StopSignals::caught() || console_.closed() || input_ended_ || (file_ && file_->ended()) ||
         (replay_ && !replay_->due()) || (options_.seconds > 0 && at_ >= options_.seconds);
}

void Simulator::run() {
  start_ = Clock::now();
  while (!over()) {
    step();
    wait();
  }
  end();
  if (replay_ && !StopSignals::caught()) replay_->check();
}

void Simulator::step() {
  const double before = at_;
  at_ = now();
  camera_.tick(at_ - before);
  if (receiver_) receiver_->play(at_);
  if (replay_) {
    send_replay();
  } else {
    send_reports();
    send_video_file();
  }
  if (picture_) send_picture();
}

timespec Simulator::longest_wait() const {
  double seconds = kStep;
  if (replay_ && replay_->due()) {
    seconds = std::clamp(*replay_->due() - now(), 0.0, kStep);
  }
  return {0, static_cast<long>(seconds * 1e9)};
}

void Simulator::wait() {
  // Nothing is asked of standard output but whether somebody still reads it.
  const auto picture =
      picture_ ? picture_->events() : std::array<pollfd, 2>{{{-1, 0, 0}, {-1, 0, 0}}};
  std::array<pollfd, 7> events{{
      {signals_.fd(), POLLIN, 0},
      {data_.fd(), POLLIN, 0},
      {video_.fd(), 0, 0},
      {STDOUT_FILENO, 0, 0},
      {options_.video == kStandardInput ? STDIN_FILENO : -1, POLLIN, 0},
      picture[0],
      picture[1],
  }};
  const timespec longest = longest_wait();
  if (ppoll(events.data(), events.size(), &longest, nullptr) <= 0) return;
  const auto& [signal, data, video, output, input, coded, coder] = events;
  look_for_refusal(data.revents, data.fd);
  look_for_refusal(video.revents, video.fd);
  if ((data.revents & POLLIN) != 0) take_frames();
  if ((output.revents & POLLERR) != 0) console_.close();
  if (input.revents != 0) send_standard_input();
}

void Simulator::end() {
  if (replay_) progress_.show(replay_->progress(), true);
  log_.end(at_);
  std::string text =
      format_text("%" PRIu64 " frames received, %" PRIu64 " bad, %" PRIu64 " bytes of video sent",
                  frames_, bad_, video_bytes_);
  if (faults_) {
    const auto [dropped, corrupted, truncated, repeated] = faults_->counts();
    text += format_text("; reports: %" PRIu64 " dropped, %" PRIu64 " corrupted, %" PRIu64
                        " truncated, %" PRIu64 " repeated",
                        dropped, corrupted, truncated, repeated);
  }
  if (replay_) {
    const auto [data, video, incomplete] = replay_->counts();
    text += format_text("; replayed: %" PRIu64 " data, %" PRIu64 " video, %" PRIu64 " incomplete",
                        data, video, incomplete);
  }
  console_.line(text);
}

// --- What the camera sends ---------------------------------------------------------------------

void Simulator::send_reports() {
  if (!options_.reports) {
    send_sign_of_life();
    return;
  }
  for (std::size_t n = 0; n < due_.size(); ++n) {
    if (due_[n] > at_) continue;
    const Report& report = reports()[n];
    const double interval = report.interval_ms / 1000.0;
    due_[n] += interval;
    // After a stop of the whole process, only the present counts.
    if (due_[n] < at_ - 1) due_[n] = at_ + interval;
    if (report.due == nullptr || report.due(camera_)) {
      send_frame(encoder_.encode(report, camera_));
    }
  }
}

void Simulator::send_frame(std::vector<std::uint8_t> frame) {
  std::vector<std::vector<std::uint8_t>> datagrams;
  if (faults_) {
    datagrams = faults_->strike(std::move(frame));
  } else {
    datagrams.push_back(std::move(frame));
  }
  for (auto& datagram : datagrams) {
    // The service takes a frame only with something behind it.
    datagram.push_back(0);
    if (!data_.send(datagram)) refused();
  }
}

/// The service learns from whoever sends to it where the camera is.
void Simulator::send_sign_of_life() {
  constexpr double kInterval = 0.5;
  if (life_due_ > at_) return;
  life_due_ = at_ + kInterval;
  constexpr std::array<std::uint8_t, 1> kLife{0};
  if (!data_.send(kLife)) refused();
}

void Simulator::send_video_file() {
  if (!file_) return;
  for (int n = 0; n < kAtOnce; ++n) {
    const auto datagram = file_->next(at_);
    if (!datagram) return;
    send_video(*datagram);
  }
}

void Simulator::send_standard_input() {
  std::vector<std::uint8_t> datagram(options_.datagram);
  const ssize_t size = read(STDIN_FILENO, datagram.data(), datagram.size());
  if (size > 0) {
    send_video(Bytes(datagram).first(static_cast<std::size_t>(size)));
  } else if (size == 0) {
    input_ended_ = true;
  } else if (errno != EINTR && errno != EAGAIN) {
    throw tools::Failure(std::string("cannot read standard input: ") + std::strerror(errno));
  }
}

void Simulator::send_video(Bytes datagram) {
  if (video_.send(datagram)) {
    video_bytes_ += datagram.size();
  } else {
    refused();
  }
}

void Simulator::refused() {
  constexpr double kAgain = 2;
  const bool said = refused_at_ && at_ - *refused_at_ < kAgain;
  refused_at_ = at_;
  if (!said) {
    complain("no service listens on " + options_.host + ", UDP 5000 and 5001; waiting for it");
  }
}

void Simulator::look_for_refusal(short events, int socket) {
  if ((events & POLLERR) == 0) return;
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
  if (error == ECONNREFUSED) refused();
}

void Simulator::send_replay() {
  for (int n = 0; n < kAtOnce && replay_->due() && *replay_->due() <= at_; ++n) {
    const ReplayDatagram datagram = replay_->take();
    if (datagram.link == Link::video) {
      send_video(datagram.payload);
    } else if (!data_.send(datagram.payload)) {
      refused();
    }
  }
  show_progress();
}

/// The stream as it comes from the coder.
void Simulator::send_picture() {
  picture_->pass(at_, camera_);
  for (int n = 0; n < kAtOnce; ++n) {
    const auto piece = picture_->read(options_.datagram);
    if (piece.empty()) return;
    send_video(piece);
  }
}

void Simulator::show_progress() {
  if (at_ < progress_due_) return;
  progress_due_ = at_ + progress_.interval();
  progress_.show(replay_->progress(), false);
}

// --- What the camera is sent -------------------------------------------------------------------

void Simulator::take_frames() {
  std::array<std::uint8_t, 2048> buffer;
  for (int n = 0; n < kAtOnce; ++n) {
    const auto datagram = data_.receive(buffer, std::chrono::milliseconds(0));
    if (!datagram) return;
    take(*datagram);
  }
}

void Simulator::take(Bytes datagram) {
  ++frames_;
  const auto checked = check_frame(datagram);
  if (const auto* const why = std::get_if<std::string>(&checked)) {
    take_bad(*why, datagram);
    return;
  }
  const auto& frame = std::get<Frame>(checked);
  const CameraCommand* const command = find_command(frame);
  if (command == nullptr) {
    take_bad(format_text("no command has receiver %u, set %u, id %02x and %zu bytes",
                         unsigned{frame.receiver}, unsigned{frame.set}, unsigned{frame.id},
                         frame.payload.size()),
             datagram);
    return;
  }
  log_.command(at_, frame, *command, camera_.apply(*command, frame.payload));
}

void Simulator::take_bad(const std::string& why, Bytes datagram) {
  ++bad_;
  log_.bad_frame(at_, why, datagram);
}

}  // namespace nimbus::sim
