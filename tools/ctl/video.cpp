#include "tools/ctl/video.h"

#include <cstdio>

#include "tools/ctl/interrupt.h"
#include "tools/ctl/output.h"

namespace nimbus::ctl {

void show_video(const Connection& connection, double seconds) {
  // How long the picture may stay away before somebody looks for the fault.
  constexpr std::chrono::seconds kPatience{3};
  ViewerLink link(connection);
  const auto end = end_after(seconds);
  const auto remark = Clock::now() + kPatience;
  bool remarked = false;
  bool any = false;
  while (!interrupted() && Clock::now() < end) {
    const auto frame = link.receive(std::min(end, Clock::now() + std::chrono::milliseconds{200}));
    if (frame && frame->video) {
      any = true;
      write_bytes(frame->payload);
    }
    if (!any && !remarked && Clock::now() > remark) {
      remarked = true;
      std::fputs("nimbusctl: no video yet; waiting for the camera\n", stderr);
    }
    expect_reader();
  }
}

}  // namespace nimbus::ctl
