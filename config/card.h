// Changes of what is on the card, the partition at /boot, which is mounted read-only between them.
#pragma once

namespace nimbus {

/// One change: whoever makes one has the card to itself until its end. The control thread and the
/// RC thread may both want to, and none must find the partition away that the other has just
/// unmounted, nor unmount it under the other. That a tool fails is not looked at.
class CardChange {
 public:
  /// Waits for the end of another one.
  CardChange() noexcept;
  CardChange(const CardChange&) = delete;
  CardChange& operator=(const CardChange&) = delete;
  ~CardChange();
};

/// Before the change.
void make_writable(const CardChange& change) noexcept;

/// After it: what was written is seen as the next start will see it.
void mount_afresh(const CardChange& change) noexcept;

}  // namespace nimbus
