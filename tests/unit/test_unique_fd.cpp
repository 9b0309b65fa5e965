#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <type_traits>
#include <utility>

namespace nimbus {
namespace {

static_assert(!std::is_copy_constructible_v<UniqueFd> && !std::is_copy_assignable_v<UniqueFd>);
static_assert(std::is_nothrow_move_constructible_v<UniqueFd>);
static_assert(std::is_nothrow_move_assignable_v<UniqueFd>);
static_assert(!std::is_convertible_v<int, UniqueFd>, "ownership is taken explicitly");
static_assert(!std::is_convertible_v<UniqueFd, int>, "and never given away by accident");

int open_null() { return open("/dev/null", O_RDWR | O_CLOEXEC); }

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(UniqueFd, IsEmptyByDefault) {
  const UniqueFd none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), -1);
  EXPECT_FALSE(UniqueFd(-1)) << "what a failed call returns";
}

TEST(UniqueFd, ClosesWhatItOwns) {
  int fd = -1;
  {
    const UniqueFd owner(open_null());
    fd = owner.get();
    EXPECT_TRUE(owner);
    EXPECT_TRUE(is_open(fd));
  }
  EXPECT_FALSE(is_open(fd));
}

TEST(UniqueFd, AnEmptyOneClosesNothing) {
  errno = 0;
  { const UniqueFd none; }
  EXPECT_EQ(errno, 0);
}

TEST(UniqueFd, AMoveHandsTheDescriptorOver) {
  UniqueFd first(open_null());
  const int fd = first.get();
  {
    const UniqueFd second(std::move(first));
    EXPECT_EQ(second.get(), fd);
    EXPECT_TRUE(is_open(fd));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): the state promised is tested
  }
  EXPECT_FALSE(is_open(fd));
}

TEST(UniqueFd, AMoveAssignmentClosesThePreviousDescriptor) {
  UniqueFd target(open_null());
  const int previous = target.get();
  const int next = open_null();
  target = UniqueFd(next);
  EXPECT_EQ(target.get(), next);
  EXPECT_TRUE(is_open(next));
  EXPECT_FALSE(is_open(previous));
  target = UniqueFd();
  EXPECT_FALSE(target);
  EXPECT_FALSE(is_open(next));
}

TEST(UniqueFd, AMoveOntoItselfKeepsTheDescriptor) {
  UniqueFd owner(open_null());
  UniqueFd& same = owner;
  owner = std::move(same);
  EXPECT_TRUE(owner);
  EXPECT_TRUE(is_open(owner.get()));
}

TEST(UniqueFd, DescriptorZeroIsOneLikeAnyOther) {
  const UniqueFd saved(dup(STDIN_FILENO));
  close(STDIN_FILENO);
  {
    const UniqueFd zero(open_null());
    ASSERT_EQ(zero.get(), 0);
    EXPECT_TRUE(zero);
  }
  EXPECT_FALSE(is_open(0));
  dup2(saved.get(), STDIN_FILENO);
}

}  // namespace
}  // namespace nimbus
