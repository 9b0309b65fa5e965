#include "config/card.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/unit/board_tools.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

TEST(Card, IsMadeWritableAndMountedAfresh) {
  const test::BoardTools tools;
  const CardChange change;
  make_writable(change);
  EXPECT_EQ(tools.calls(), test::Texts{"mount -o rw,remount /boot"});
  mount_afresh(change);
  EXPECT_EQ(tools.calls(), (test::Texts{"umount /boot", "mount /boot"}));
}

TEST(Card, ItIsMountedAlsoWhenItCouldNotBeUnmounted) {
  const test::BoardTools tools;
  tools.answer("umount", "exit 1");
  mount_afresh(CardChange());
  EXPECT_EQ(tools.calls(), (test::Texts{"umount /boot", "mount /boot"}));
}

TEST(Card, OneChangeWaitsForTheEndOfAnother) {
  std::atomic<bool> second_began = false;
  std::jthread second;
  {
    const CardChange first;
    second = std::jthread([&] {
      const CardChange change;
      second_began = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(second_began);
  }
  second.join();
  EXPECT_TRUE(second_began);
}

}  // namespace
}  // namespace nimbus
