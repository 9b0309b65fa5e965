#include "tools/web/helm.h"

#include <algorithm>
#include <cmath>

namespace nimbus::web {
namespace {

constexpr double kFullSpeed = 4000;
constexpr int kStops = 3;
constexpr std::chrono::milliseconds kStopPeriod{20};

std::int16_t speed_of(double part) {
  if (std::isnan(part)) return 0;
  return static_cast<std::int16_t>(std::lround(std::clamp(part, -1.0, 1.0) * kFullSpeed));
}

}  // namespace

void Helm::steer(const std::array<double, 3>& parts, std::uint64_t count, Time now) {
  if (count <= last_count_) return;
  last_count_ = count;
  const Speeds speeds{speed_of(parts[0]), speed_of(parts[1]), speed_of(parts[2])};
  if (speeds == Speeds{}) {
    if (moving()) stop(now);
    return;
  }
  moving_ = true;
  heard_ = now;
  stops_left_ = 0;
  send_(speeds);
}

void Helm::release(Time now) {
  last_count_ = 0;
  if (moving()) stop(now);
}

void Helm::stop(Time now) {
  moving_ = false;
  send_({});
  stops_left_ = kStops - 1;
  next_stop_ = now + kStopPeriod;
  if (std::exchange(commanded_, false)) end_command_();
}

std::optional<Time> Helm::deadline() const {
  if (moving_) return heard_ + kSilence;
  if (stops_left_ > 0) return next_stop_;
  return std::nullopt;
}

void Helm::pass_time(Time now) {
  if (moving_ && now - heard_ >= kSilence) {
    stop(now);
  } else if (stops_left_ > 0 && now >= next_stop_) {
    --stops_left_;
    next_stop_ = now + kStopPeriod;
    send_({});
  }
}

}  // namespace nimbus::web
