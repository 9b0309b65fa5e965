#include "config/region.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstddef>
#include <filesystem>
#include <string>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

constexpr const char* kFile = "/dev/shm/config_mem";
constexpr std::size_t kSize = 2336;

class ConfigRegion : public testing::Test {
 protected:
  ConfigRegion() { std::filesystem::remove_all(kFile); }
};

TEST_F(ConfigRegion, IsCreatedZeroedForItsOwnerOnly) {
  const auto umask_before = umask(0);
  map_config_region();
  umask(umask_before);
  struct stat status {};
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_EQ(test::read_file(kFile), std::string(kSize, '\0'));
}

/// The siblings' content stays; the size is the service's.
TEST_F(ConfigRegion, AnExistingOneIsSizedAndNotCleared) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{100}, kSize, std::size_t{9000}}) {
    SCOPED_TRACE(size);
    std::string content(size, 'x');
    test::write_file(kFile, content);
    map_config_region();
    content.resize(kSize, '\0');
    EXPECT_EQ(test::read_file(kFile), content);
  }
}

TEST_F(ConfigRegion, IsSharedWithTheSiblings) {
  map_config_region();
  ASSERT_NE(config_region(), nullptr);
  config_region()->video_width = 0x01020304;
  EXPECT_EQ(test::read_file(kFile).substr(8, 4), "\4\3\2\1");
  std::fstream(kFile, std::ios::in | std::ios::out | std::ios::binary).seekp(8).write("\5", 1);
  EXPECT_EQ(config_region()->video_width, 0x01020305);
}

TEST_F(ConfigRegion, AFailureGoesUnreported) {
  std::filesystem::create_directory(kFile);
  test::Console console;
  map_config_region();
  EXPECT_EQ(console.texts(), test::Texts{});
}

TEST_F(ConfigRegion, NoDescriptorIsLeftOpen) {
  const auto before = test::open_descriptors();
  map_config_region();  // creates
  map_config_region();  // attaches
  EXPECT_EQ(test::open_descriptors(), before);
}

}  // namespace
}  // namespace nimbus
