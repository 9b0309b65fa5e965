#include "app/process.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tests/unit/support.h"

namespace nimbus {
namespace {

/// What a prepared process is, seen by a process that is prepared and ends.
void prepared(bool (*is)()) {
  EXPECT_EXIT(std::exit(is() ? EXIT_SUCCESS : EXIT_FAILURE), testing::ExitedWithCode(EXIT_SUCCESS),
              "");
}

TEST(Process, StandardDescriptorsThatWereClosedAreTaken) {
  prepared([] {
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) close(fd);
    prepare_process();
    struct stat null {};
    struct stat each {};
    bool all = stat("/dev/null", &null) == 0;
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
      all = all && fstat(fd, &each) == 0 && each.st_rdev == null.st_rdev;
    }
    return all;
  });
}

TEST(Process, OpenOnesAreLeftAloneAndNoneIsAdded) {
  prepared([] {
    struct stat before {};
    struct stat after {};
    fstat(STDERR_FILENO, &before);
    const auto count = test::open_descriptors();
    prepare_process();
    fstat(STDERR_FILENO, &after);
    return before.st_ino == after.st_ino && test::open_descriptors() == count;
  });
}

TEST(Process, AConsoleWhoseReaderIsGoneDoesNotEndIt) {
  prepared([] {
    prepare_process();
    return std::raise(SIGPIPE) == 0;
  });
}

TEST(Process, CommandsGetTheDefaultsOfSignals) {
  prepared([] {
    std::signal(SIGCHLD, SIG_IGN);
    prepare_process();
    // An ignored SIGCHLD would let the status be lost, an ignored SIGPIPE be inherited.
    return std::signal(SIGCHLD, SIG_DFL) == SIG_DFL && std::signal(SIGPIPE, SIG_DFL) != SIG_IGN;
  });
}

TEST(Process, ItsPausesAreExact) {
  prepared([] {
    prepare_process();
    return prctl(PR_GET_TIMERSLACK) == 1;
  });
}

}  // namespace
}  // namespace nimbus
