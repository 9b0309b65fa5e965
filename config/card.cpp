#include "config/card.h"

#include <mutex>

#include "base/shell.h"

namespace nimbus {
namespace {

std::mutex changing;

}  // namespace

CardChange::CardChange() noexcept { changing.lock(); }
CardChange::~CardChange() { changing.unlock(); }

void make_writable(const CardChange& /*change*/) noexcept {
  run_shell("mount -o rw,remount /boot");
}

void mount_afresh(const CardChange& /*change*/) noexcept {
  run_shell("umount /boot");
  run_shell("mount /boot");
}

}  // namespace nimbus
