// The camera and gimbal commands of viewers.
#pragma once

namespace nimbus {

/// Carries out one command: a JSON object with the text members "cmd", "param" and "value1" to
/// "value4", in capitals or not. A text that is not JSON and words that are unknown do nothing, nor
/// does a command without a value that it needs; a value that is not a number is 0. May hold its
/// caller for 200 ms (the exposure commands). Control thread.
void interpret_command(const char* text) noexcept;

}  // namespace nimbus
