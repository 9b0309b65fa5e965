// Sending what operates the camera, the gimbal and the board.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/ctl/commands.h"
#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

/// Sends one command and waits until the service has had the time to take it: it has room for one
/// that waits. `busy` is how long carrying it out keeps the service from the next.
void send_command(ViewerLink& link, const std::string& text, std::chrono::milliseconds busy);

/// `nimbusctl send`: texts as they are, one after the other; "-" stands for the lines of standard
/// input. Throws Failure for a text that no service could read, before anything is sent.
void send_texts(const Connection& connection, const std::vector<std::string>& texts);

struct OperateOptions {
  bool force = false;
  bool yes = false;
};

/// A command in words for people.
void operate(const Connection& connection, const std::vector<std::string>& arguments,
             const OperateOptions& options);

/// `nimbusctl speed`: moves the gimbal for so long, or until Ctrl-C, and stops it.
void move_gimbal(const Connection& connection, const std::array<std::int16_t, 3>& pan_tilt_roll,
                 double seconds);

}  // namespace nimbus::ctl
