// What the service tells its viewers, as groups of the state.
//
// Dozens of messages come each second, and often nobody looks. So only the last of each kind is
// kept, as it came, and read when somebody wants to know.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "tools/web/bytes.h"
#include "tools/web/state.h"

namespace nimbus::web {

class Reports {
 public:
  /// Takes the payload of a frame that is no video.
  void take(Bytes payload, Time now);

  /// Reads what has come since the last call.
  void read_into(State& state);

 private:
  struct Last {
    Buffer payload;
    Time time{};
    bool read = false;
  };
  /// By type, and by the source of those that have one.
  std::map<unsigned, Last> last_;
};

/// Whether the camera records, by the message that says so; nothing for any other.
[[nodiscard]] std::optional<bool> records(Bytes payload);

/// Takes a message into the state.
void take_message(State& state, Bytes payload, std::uint64_t now);

}  // namespace nimbus::web
