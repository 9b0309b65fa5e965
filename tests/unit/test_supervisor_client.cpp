#include "app/supervisor_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

/// A supervisor at the other end of a socket, by the name that stands in the environment.
class Supervisor {
 public:
  explicit Supervisor(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }

  /// What it was told since the last time, one message a line.
  std::string told() const {
    std::string messages;
    std::array<char, 100> message;
    ssize_t length = 0;
    while ((length = recv(socket_.get(), message.data(), message.size(), MSG_DONTWAIT)) >= 0) {
      messages += std::string(message.data(), static_cast<std::size_t>(length)) + '\n';
    }
    return messages;
  }

 private:
  UniqueFd socket_{socket(AF_UNIX, SOCK_DGRAM, 0)};
};

/// Each test is met by a process of its own: what the client knows, it learns once.
void met(void (*test)()) {
  EXPECT_EXIT(
      {
        test();
        std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
      },
      testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST(SupervisorClient, WhoDoesNotAskIsNotTold) {
  met([] {
    const auto before = test::open_descriptors();
    meet_supervisor();
    tell_ready();
    tell_alive();
    EXPECT_EQ(test::open_descriptors(), before);
  });
}

TEST(SupervisorClient, IsReadyOnce) {
  for (const char* const name : {"@nimbus-test", "/dev/shm/nimbus-supervisor"}) {
    setenv("NAME", name, 1);
    met([] {
      const Supervisor supervisor(std::getenv("NAME"));
      meet_supervisor();
      EXPECT_EQ(supervisor.told(), "");
      tell_ready();
      EXPECT_EQ(supervisor.told(), "READY=1\n");
      tell_alive();
      EXPECT_EQ(supervisor.told(), "") << "nobody has set an interval";
    });
  }
  unlink("/dev/shm/nimbus-supervisor");
}

TEST(SupervisorClient, ItsCommandsInheritNothing) {
  met([] {
    setenv("WATCHDOG_USEC", "1000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    const Supervisor supervisor("@nimbus-test");
    meet_supervisor();
    for (const char* const variable : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"}) {
      EXPECT_EQ(std::getenv(variable), nullptr) << variable;
    }
    tell_alive();
    EXPECT_EQ(supervisor.told(), "") << "the interval is another process's";
  });
}

TEST(SupervisorClient, IsAliveTwiceInTheInterval) {
  met([] {
    setenv("WATCHDOG_USEC", "400000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    const Supervisor supervisor("@nimbus-test");
    meet_supervisor();
    tell_alive();
    tell_alive();
    EXPECT_EQ(supervisor.told(), "WATCHDOG=1\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(210));
    tell_alive();
    EXPECT_EQ(supervisor.told(), "WATCHDOG=1\n");
  });
}

TEST(SupervisorClient, ANameThatIsNoneIsNotOpened) {
  const std::string too_long = "/" + std::string(107, 'x');
  for (const char* const name : {"", "nimbus", too_long.c_str()}) {
    setenv("NOTIFY_SOCKET", name, 1);
    met([] {
      const auto before = test::open_descriptors();
      meet_supervisor();
      tell_ready();
      EXPECT_EQ(test::open_descriptors(), before);
    });
  }
  unsetenv("NOTIFY_SOCKET");
}

}  // namespace
}  // namespace nimbus
