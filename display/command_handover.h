// The way of a viewer's command from the viewer link to the control thread.
//
// The command mailbox alone cannot hand it over: any process may write there, and a text posted
// between the copying and the clearing would be gone, or half of it. So the two threads take turns
// at the mailbox, and the service keeps what it has posted. What is promised: a viewer's command is
// acted upon whole, or replaced by a later one, unless another process writes at the same moment.
#pragma once

#include <algorithm>
#include <mutex>
#include <string_view>
#include <type_traits>

#include "display/command_mailbox.h"

namespace nimbus {

/// One turn at the mailbox at a time, each for as long as 512 bytes are copied, and the text that
/// was posted and not taken yet.
class CommandHandover {
 public:
  using Text = TextCopy<CommandMailbox::kSize>;

  /// Posts a command, in place of one that has not been taken. Viewer link's receive thread.
  void post(CommandMailbox& mailbox, std::string_view text) noexcept {
    const std::lock_guard turn(turn_);
    mailbox.post(text);
    const auto kept = CommandMailbox::cut(text);
    posted_ = {};
    std::copy(kept.begin(), kept.end(), posted_.data());
  }

  /// Takes the waiting command and empties the mailbox, before anybody acts on the command. Empty
  /// when none is waiting. What another process has written over a posted one is the later of the
  /// two. Control thread.
  [[nodiscard]] Text take(CommandMailbox& mailbox) noexcept {
    const std::lock_guard turn(turn_);
    const Text posted = posted_;
    posted_ = {};
    const Text found = mailbox.take();
    return found.view().empty() ? posted : found;
  }

 private:
  std::mutex turn_;
  Text posted_{};  // empty: nothing is waiting
};

static_assert(std::is_trivially_destructible_v<CommandHandover>);

/// The one of the service: between handle_viewer_datagram() and the control thread.
inline constinit CommandHandover command_handover;

}  // namespace nimbus
