// The gimbal's speed as a dead man's switch: it stops by itself when whoever moves it falls silent.
//
// A command may move the gimbal, too, and the service does so until it is told otherwise, whatever
// speeds say. So what stops the gimbal here ends that as well.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "tools/web/bytes.h"

namespace nimbus::web {

class Helm {
 public:
  using Speeds = std::array<std::int16_t, 3>;  ///< pan, tilt, roll; 4000 is full speed
  using Send = std::function<void(const Speeds&)>;
  using EndCommand = std::function<void()>;

  /// Who steers says something more often than this, or the gimbal stops.
  static constexpr std::chrono::milliseconds kSilence{300};

  Helm(Send send, EndCommand end_command)
      : send_(std::move(send)), end_command_(std::move(end_command)) {}

  /// Parts of full speed, from -1 to 1. A speed whose count is not above the last is late, and
  /// nothing. No number is no speed.
  void steer(const std::array<double, 3>& parts, std::uint64_t count, Time now);

  /// A command has gone that moves the gimbal until told otherwise, or one that ends that.
  void commanded(bool moves) { commanded_ = moves; }

  /// Stops the gimbal if it moves, whoever moved it; counts begin anew.
  void release(Time now);

  /// When pass_time() is due.
  [[nodiscard]] std::optional<Time> deadline() const;
  void pass_time(Time now);

  [[nodiscard]] bool moving() const { return moving_ || commanded_; }

 private:
  void stop(Time now);

  Send send_;
  EndCommand end_command_;
  bool moving_ = false;     // by speeds
  bool commanded_ = false;  // by a command
  std::uint64_t last_count_ = 0;
  Time heard_{};
  int stops_left_ = 0;  // the word to stop may get lost, and is said again
  Time next_stop_{};
};

}  // namespace nimbus::web
