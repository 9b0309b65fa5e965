// What the tests of several modules need.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace nimbus::test {

// --- Threads -----------------------------------------------------------------------------------

/// Keeps the calling thread on the processor of that number, counted among those it may use, for
/// its lifetime. The scheduler of a busy machine leaves two threads on one processor for long;
/// there they never meet in anything.
class Processor {
 public:
  explicit Processor(int number) {
    sched_getaffinity(0, sizeof(before_), &before_);
    int count = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (!CPU_ISSET(cpu, &before_) || count++ != number) continue;
      cpu_set_t only;
      CPU_ZERO(&only);
      CPU_SET(cpu, &only);
      sched_setaffinity(0, sizeof(only), &only);
      return;
    }
  }
  Processor(const Processor&) = delete;
  Processor& operator=(const Processor&) = delete;
  ~Processor() { sched_setaffinity(0, sizeof(before_), &before_); }

 private:
  cpu_set_t before_;
};

/// Runs `body` again and again on a thread and a processor of its own, from the constructor to the
/// destructor.
class Background {
 public:
  template <typename Body>
  explicit Background(Body body)
      : thread_([this, body](const std::stop_token& stop) {
          const Processor second(1);
          while (!stop.stop_requested()) {
            body();
            if (!started_) {
              started_ = true;
              started_.notify_one();
            }
          }
        }) {
    started_.wait(false);
  }

 private:
  std::atomic<bool> started_ = false;
  std::jthread thread_;
};

/// Repeats `body` against what runs in the background, until the time is over or a test failed.
template <typename Body>
void hammer(Body body, std::chrono::milliseconds time = std::chrono::milliseconds(200)) {
  const Processor first(0);
  const auto deadline = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < deadline && !testing::Test::HasFailure()) {
    for (int i = 0; i < 100; ++i) body();
  }
}

/// Whether an attempt succeeds three times before it fails three times. What must come in time can
/// be late on a busy machine, but not most of the time.
template <typename Attempt>
bool mostly(Attempt attempt) {
  int good = 0;
  int bad = 0;
  while (good < 3 && bad < 3) ++(attempt() ? good : bad);
  return good == 3;
}

// --- Memory ------------------------------------------------------------------------------------

/// The bytes of an object, as a sibling process sees them. For objects that no other thread uses.
template <typename T>
std::string bytes_of(const T& object) {
  static_assert(std::is_standard_layout_v<T>);
  std::string bytes(sizeof(T), '\0');
  std::memcpy(bytes.data(), static_cast<const void*>(&object), sizeof(T));
  return bytes;
}

/// Overwrites the bytes of an object that no other thread uses.
template <typename T>
void set_bytes(T& object, std::string_view bytes) {
  static_assert(std::is_standard_layout_v<T>);
  ASSERT_EQ(bytes.size(), sizeof(T));
  std::memcpy(static_cast<void*>(&object), bytes.data(), sizeof(T));
}

// --- Files -------------------------------------------------------------------------------------

inline void write_file(const std::filesystem::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// --- Console -----------------------------------------------------------------------------------

/// Makes `fd` the standard error of the process for its lifetime; closes standard error for -1.
class StandardError {
 public:
  explicit StandardError(int fd) : saved_(dup(STDERR_FILENO)) {
    if (fd < 0) {
      close(STDERR_FILENO);
    } else {
      dup2(fd, STDERR_FILENO);
    }
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;
  ~StandardError() { dup2(saved_.get(), STDERR_FILENO); }

 private:
  UniqueFd saved_;
};

/// Takes standard error for its lifetime. Every write to it is a packet of its own.
class Console {
 public:
  /// The next `count` writes, in their order; fewer when they do not come within ten seconds.
  std::vector<std::string> wait(std::size_t count) {
    std::vector<std::string> texts;
    while (texts.size() < count && receive(texts, std::chrono::seconds(10))) {
    }
    return texts;
  }

  /// What has been written since the last call, one text per write.
  std::vector<std::string> texts() {
    std::vector<std::string> texts;
    while (receive(texts, std::chrono::seconds(0))) {
    }
    return texts;
  }

 private:
  static std::pair<UniqueFd, UniqueFd> packet_sockets() {
    std::array<int, 2> ends{-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()) != 0) ADD_FAILURE() << "socketpair";
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
  }

  bool receive(std::vector<std::string>& texts, std::chrono::milliseconds patience) {
    pollfd readable{ends_.first.get(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(patience.count())) != 1) return false;
    std::array<char, 65536> packet;
    const ssize_t length = recv(ends_.first.get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (length < 0) return false;
    texts.emplace_back(packet.data(), static_cast<std::size_t>(length));
    return true;
  }

  std::pair<UniqueFd, UniqueFd> ends_ = packet_sockets();
  StandardError redirected_{ends_.second.get()};
};

/// Expected writes.
using Texts = std::vector<std::string>;

}  // namespace nimbus::test
