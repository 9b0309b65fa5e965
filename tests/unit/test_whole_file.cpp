#include "base/whole_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using test::write_file;

using Content = std::map<std::string, std::string>;

/// A folder of its own, in which "file" is replaced.
class WholeFile : public testing::Test {
 protected:
  WholeFile() {
    std::string pattern = testing::TempDir() + "whole.XXXXXX";
    folder_ = mkdtemp(pattern.data());
    file_ = folder_ / "file";
  }
  ~WholeFile() override { fs::remove_all(folder_); }

  Replaced replace(const std::string& content) const {
    return replace_file(file_.c_str(), content);
  }

  /// The ordinary files there.
  [[nodiscard]] Content content() const {
    Content files;
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
      if (entry.is_regular_file() && !entry.is_symlink()) {
        files[fs::relative(entry.path(), folder_)] = read_file(entry.path());
      }
    }
    return files;
  }

  fs::path folder_, file_;
};

TEST_F(WholeFile, IsMadeAndReplaced) {
  for (const std::string& text : {std::string("one"), std::string(), std::string(100'000, 'x')}) {
    EXPECT_EQ(replace(text), Replaced::whole);
    EXPECT_EQ(content(), (Content{{"file", text}}));
  }
}

TEST_F(WholeFile, KeepsItsMode) {
  write_file(file_, "one");
  for (const mode_t mode : {0600U, 0640U, 0666U}) {
    ASSERT_EQ(chmod(file_.c_str(), mode), 0);
    EXPECT_EQ(replace("two"), Replaced::whole);
    struct stat status {};
    ASSERT_EQ(stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, mode);
  }
}

TEST_F(WholeFile, KeepsItsOwner) {
  write_file(file_, "one");
  if (chown(file_.c_str(), 1000, 1001) != 0) GTEST_SKIP() << "only root can give files away";
  EXPECT_TRUE(keep_copy(file_.c_str(), ".kept"));
  EXPECT_EQ(replace("two"), Replaced::whole);
  for (const std::string& name : {file_.string(), file_.string() + ".kept"}) {
    struct stat status {};
    ASSERT_EQ(stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 1000U) << name;
    EXPECT_EQ(status.st_gid, 1001U) << name;
  }
}

/// Whoever has it open, or its second name, has the former one.
TEST_F(WholeFile, IsAnotherFileThen) {
  write_file(file_, "one");
  fs::create_hard_link(file_, folder_ / "former");
  EXPECT_EQ(replace("two"), Replaced::whole);
  EXPECT_EQ(content(), (Content{{"file", "two"}, {"former", "one"}}));
}

TEST_F(WholeFile, LinksStay) {
  fs::create_directory(folder_ / "a");
  const fs::path links[] = {"a/real", "./a/../a/real", folder_ / "a" / "real", "second"};
  fs::create_symlink("a/real", folder_ / "second");
  for (const fs::path& link : links) {
    SCOPED_TRACE(link);
    fs::remove(file_);
    fs::create_symlink(link, file_);
    for (const std::string text : {"new", "replaced"}) {
      EXPECT_EQ(replace(text), Replaced::whole);
      EXPECT_EQ(fs::read_symlink(file_), link);
      EXPECT_EQ(content(), (Content{{"a/real", text}}));
    }
    fs::remove(folder_ / "a" / "real");
  }
}

TEST_F(WholeFile, LinksThatDoNotEndAreRefused) {
  fs::create_symlink("file", file_);
  EXPECT_EQ(replace("x"), Replaced::refused);
}

TEST_F(WholeFile, AFolderInItsPlaceIsRefused) {
  fs::create_directory(file_);
  EXPECT_EQ(replace("x"), Replaced::refused);
  EXPECT_EQ(content(), Content{});
}

TEST_F(WholeFile, AFolderThatIsNotThereIsRefused) {
  EXPECT_EQ(replace_file((folder_ / "none" / "file").c_str(), "x"), Replaced::refused);
}

/// A save that was cut short has left it.
TEST_F(WholeFile, WhatIsLeftOfAFormerTryIsInNobodysWay) {
  write_file(folder_ / "file.new", "half");
  EXPECT_EQ(replace("whole"), Replaced::whole);
  EXPECT_EQ(content(), (Content{{"file", "whole"}}));
}

/// With something in the way of the new one, it is rewritten in place.
TEST_F(WholeFile, SomethingInTheWayDoesNotStopIt) {
  fs::create_directory(folder_ / "file.new");
  for (const std::string text : {"new", "replaced"}) {
    EXPECT_EQ(replace(text), Replaced::whole);
    EXPECT_EQ(content(), (Content{{"file", text}}));
  }
}

/// A mount point cannot be replaced by a rename.
TEST_F(WholeFile, AMountPointIsRewritten) {
  write_file(folder_ / "real", "one");
  write_file(file_, "");
  const std::string where = file_.string();
  ASSERT_EQ(std::system(("/bin/mount --bind " + (folder_ / "real").string() + " " + where).c_str()),
            0);
  EXPECT_EQ(replace("two"), Replaced::whole);
  EXPECT_EQ(read_file(folder_ / "real"), "two");
  EXPECT_EQ(std::system(("/bin/umount " + where).c_str()), 0);
  EXPECT_EQ(content(), (Content{{"file", ""}, {"real", "two"}}));
}

TEST_F(WholeFile, ADeviceIsWrittenTo) {
  fs::create_symlink("/dev/null", file_);
  EXPECT_EQ(replace("x"), Replaced::whole);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  fs::remove(file_);
  fs::create_symlink("/dev/full", file_);
  EXPECT_EQ(replace("x"), Replaced::torn);
}

/// The content stays, and nothing is left that takes up room.
TEST_F(WholeFile, WithoutRoomTheFormerContentStays) {
  const std::string where = folder_.string();
  ASSERT_EQ(std::system(("/bin/mount -t tmpfs -o size=12k test " + where).c_str()), 0);
  EXPECT_EQ(replace("one"), Replaced::whole);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(replace(std::string(10'000, 'x')), Replaced::failed);
    EXPECT_EQ(content(), (Content{{"file", "one"}}));
  }
  EXPECT_FALSE(keep_copy(file_.c_str(), "/none"));
  EXPECT_EQ(replace("two"), Replaced::whole);
  ASSERT_EQ(std::system(("/bin/umount " + where).c_str()), 0);
}

/// On a card that takes no more files, the new content has no place beside the former one.
TEST_F(WholeFile, WithoutRoomForAnotherFileTheFormerContentStays) {
  const std::string where = folder_.string();
  ASSERT_EQ(std::system(("/bin/mount -t tmpfs -o nr_inodes=2 test " + where).c_str()), 0);
  EXPECT_EQ(replace("one"), Replaced::whole) << "the folder is the first, and this the second";
  EXPECT_EQ(replace("two"), Replaced::failed);
  EXPECT_EQ(content(), (Content{{"file", "one"}}));
  fs::rename(file_, folder_ / "other");
  EXPECT_EQ(replace("two"), Replaced::refused) << "nor can it be made";
  EXPECT_EQ(content(), (Content{{"other", "one"}}));
  ASSERT_EQ(std::system(("/bin/umount " + where).c_str()), 0);
}

TEST_F(WholeFile, ACopyIsKeptBesideIt) {
  EXPECT_TRUE(keep_copy(file_.c_str(), ".kept")) << "there is nothing to keep";
  write_file(file_, "");
  EXPECT_TRUE(keep_copy(file_.c_str(), ".kept")) << "nor here";
  EXPECT_EQ(content(), (Content{{"file", ""}}));
  for (const std::string& text :
       {std::string("one"), std::string(10'000, 'x'), std::string("two")}) {
    write_file(file_, text);
    EXPECT_TRUE(keep_copy(file_.c_str(), ".kept"));
    EXPECT_EQ(content(), (Content{{"file", text}, {"file.kept", text}}));
  }
}

/// One with something in it, where a link leads.
TEST_F(WholeFile, TellsWhetherThereIsACopy) {
  fs::create_directory(folder_ / "a");
  fs::create_symlink("a/real", file_);
  const auto has = [&] { return has_copy(file_.c_str(), ".kept"); };
  EXPECT_FALSE(has());
  write_file(folder_ / "a" / "real.kept", "");
  EXPECT_FALSE(has());
  write_file(folder_ / "a" / "real.kept", "text");
  EXPECT_TRUE(has());
  fs::remove(folder_ / "a" / "real.kept");
  fs::create_directory(folder_ / "a" / "real.kept");
  EXPECT_FALSE(has());
}

TEST_F(WholeFile, IsComparedWithItsCopy) {
  const auto agrees = [&] { return copy_agrees(file_.c_str(), ".kept"); };
  EXPECT_FALSE(agrees());
  for (const std::string& text :
       {std::string("one"), std::string(4096, 'x'), std::string(9000, 'x')}) {
    write_file(file_, text);
    EXPECT_FALSE(agrees());
    write_file(file_.string() + ".kept", text);
    EXPECT_TRUE(agrees());
    write_file(file_.string() + ".kept", text + "x");
    EXPECT_FALSE(agrees());
    write_file(file_, text + "y");
    EXPECT_FALSE(agrees());
    fs::remove(file_.string() + ".kept");
  }
}

/// Whether there is something to keep is not known then.
TEST_F(WholeFile, WhatCannotBeSeenIsNotKept) {
  write_file(folder_ / "no folder", "");
  EXPECT_FALSE(keep_copy((folder_ / "no folder" / "file").c_str(), ".kept"));
}

TEST_F(WholeFile, ACopyIsKeptWhereALinkLeads) {
  fs::create_directory(folder_ / "a");
  write_file(folder_ / "a" / "real", "text");
  fs::create_symlink("a/real", file_);
  EXPECT_TRUE(keep_copy(file_.c_str(), ".kept"));
  EXPECT_EQ(content(), (Content{{"a/real", "text"}, {"a/real.kept", "text"}}));
}

TEST_F(WholeFile, IsCompared) {
  EXPECT_FALSE(file_holds(file_.c_str(), ""));
  for (const std::string& text : {std::string(), std::string("one"), std::string(9000, 'x')}) {
    write_file(file_, text);
    EXPECT_TRUE(file_holds(file_.c_str(), text));
    EXPECT_FALSE(file_holds(file_.c_str(), text + "x"));
    EXPECT_FALSE(file_holds(file_.c_str(), "y"));
  }
  EXPECT_FALSE(file_holds(file_.c_str(), std::string(8999, 'x')));
}

TEST_F(WholeFile, APipeInItsPlaceIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_FALSE(file_holds(file_.c_str(), "x"));
}

TEST_F(WholeFile, NoDescriptorIsLeft) {
  write_file(file_, "one");
  const auto before = test::open_descriptors();
  EXPECT_EQ(replace("two"), Replaced::whole);
  EXPECT_TRUE(keep_copy(file_.c_str(), ".kept"));
  EXPECT_TRUE(file_holds(file_.c_str(), "two"));
  EXPECT_EQ(test::open_descriptors(), before);
}

}  // namespace
}  // namespace nimbus
