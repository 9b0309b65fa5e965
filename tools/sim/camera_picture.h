// The picture of the simulated camera as an H.264 byte stream: the scene, coded by ffmpeg.
#pragma once

#include <poll.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "tools/sim/child.h"
#include "tools/sim/frame.h"
#include "tools/sim/scene.h"

namespace nimbus::sim {

class CameraPicture {
 public:
  static constexpr double kPeriod = 0.04;  ///< seconds from one picture to the next

  /// Has ffmpeg paint the panorama, which takes a moment, and starts the coder. Throws Failure.
  CameraPicture();

  /// Takes a picture once there is a panorama and when its time has come, so many seconds after the
  /// start; leaves one out while the coder is behind. Throws Failure when the coder has ended.
  void pass(double seconds, const CameraModel& camera);

  /// For poll(2): what it waits for.
  [[nodiscard]] std::array<pollfd, 2> events() const;
  /// The next piece of the stream, of at most `size` bytes; empty when there is none yet.
  [[nodiscard]] std::vector<std::uint8_t> read(std::size_t size);

 private:
  bool paint();
  void feed();

  std::optional<Child> painter_;  // until the panorama is whole
  Panorama panorama_;
  std::size_t painted_ = 0;  // bytes
  std::optional<Scene> scene_;
  Child coder_;
  std::vector<std::uint8_t> picture_;
  std::size_t fed_ = 0;  // bytes of the picture
  double due_ = 0;       // seconds
};

}  // namespace nimbus::sim
