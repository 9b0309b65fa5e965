// The camera's reports: frames of a fixed length, each sent again and again at its own rate.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "tools/sim/camera_model.h"

namespace nimbus::sim {

/// A kind of report. The service tells them apart by their length, and some by their command set.
struct Report {
  std::string_view name;
  std::uint8_t length;  ///< of the whole frame
  std::uint8_t sender;
  std::uint8_t set;
  std::uint8_t id;
  unsigned interval_ms;
  unsigned start_ms;                ///< when the first one is due
  bool (*due)(const CameraModel&);  ///< null: always
  void (*fill)(CameraModel&, std::span<std::uint8_t> frame);
};

/// Every kind.
[[nodiscard]] std::span<const Report> reports();

/// Makes frames of reports, numbered from 0.
class ReportEncoder {
 public:
  /// A whole frame about the camera as it is now.
  [[nodiscard]] std::vector<std::uint8_t> encode(const Report& report, CameraModel& camera);

 private:
  std::uint16_t sequence_ = 0;
};

}  // namespace nimbus::sim
