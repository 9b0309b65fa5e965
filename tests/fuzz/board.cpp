#include "tests/fuzz/board.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <thread>

#include "base/unique_fd.h"
#include "base/wire.h"
#include "camera/duml.h"
#include "config/config.h"
#include "display/region.h"
#include "net/sources.h"
#include "tests/fuzz/invariants.h"

namespace nimbus::fuzz {
namespace {

std::string_view tool_output;
std::string_view unread;
int tool_status = 0;

constexpr auto kTools = std::to_array<std::string_view>({
    "./bin/wlanstatus",
    "./scripts/hdmi-change.sh",
    "./scripts/hdmi-mode.sh",
    "iwlist",
    "killall",
    "mount",
    "reboot",
    "rm",
    "shutdown",
    "touch",
    "tvservice",
    "umount",
    "wpa_cli",
});

// The one command with work for the shell itself.
constexpr std::string_view kCopy =
    "cat /boot/tervado-nimbus.conf | sed 's/\\r$//' > /run/tervado.conf";

/// Whether the shell takes the words as they are.
bool is_plain(std::string_view words) {
  constexpr std::string_view kActedOn = "\t\n\r!#$&'()*;<>?[\\]^`{|}~";
  return words.find_first_of(kActedOn) == std::string_view::npos &&
         std::count(words.begin(), words.end(), '"') % 2 == 0;
}

void check_command(std::string_view command) {
  if (command == kCopy) return;
  constexpr std::string_view kSilent = " 2>/dev/null";
  if (command.ends_with(kSilent)) command.remove_suffix(kSilent.size());
  require(is_plain(command));
  require(std::find(kTools.begin(), kTools.end(), command.substr(0, command.find(' '))) !=
          kTools.end());
}

void check_frame(std::span<const std::uint8_t> frame) {
  require(frame.size() >= kDumlOverhead && frame.size() <= UINT8_MAX);
  require(frame[0] == kDumlStart && frame[1] == frame.size());
  require(frame[3] == duml_crc8(frame.first(3)));
  const std::size_t check = frame.size() - sizeof(std::uint16_t);
  require(load_le<std::uint16_t>(frame, check) == duml_crc16(frame.first(check)));
}

ssize_t read_output(void* /*unused*/, char* buffer, std::size_t size) {
  const std::size_t length = unread.copy(buffer, size);
  unread.remove_prefix(length);
  return static_cast<ssize_t>(length);
}

/// Null where the tools cannot be started.
std::FILE* open_output() {
  if (tool_status == -1) return nullptr;
  unread = tool_output;
  return fopencookie(nullptr, "r", {read_output, nullptr, nullptr, nullptr});
}

}  // namespace

void set_tools(std::string_view output, int status) {
  tool_output = output;
  tool_status = status;
}

void clear_memory() {
  std::ranges::fill(std::as_writable_bytes(std::span(display_region(), 1)), std::byte{});
  std::ranges::fill(std::as_writable_bytes(std::span(config_get(), 1)), std::byte{});
}

void connect_camera() {
  require(init_sources(nullptr) == 0);
  const UniqueFd bridge(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kDataPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  require(connect(bridge.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
  require(send(bridge.get(), "x", 1, 0) == 1);
  while (display_region()->data_connected == 0) std::this_thread::yield();
}

}  // namespace nimbus::fuzz

// What the service calls instead of the C library.
extern "C" {

int fuzz_system(const char* command) {
  nimbus::fuzz::check_command(command);
  return nimbus::fuzz::tool_status;
}

std::FILE* fuzz_popen(const char* command, const char* /*mode*/) {
  nimbus::fuzz::check_command(command);
  return nimbus::fuzz::open_output();
}

int fuzz_pclose(std::FILE* pipe) {
  std::fclose(pipe);
  return nimbus::fuzz::tool_status;
}

unsigned fuzz_sleep(unsigned /*time*/) { return 0; }
int fuzz_usleep(useconds_t /*time*/) { return 0; }

ssize_t fuzz_sendto(int /*socket*/, const void* bytes, std::size_t size, int /*flags*/,
                    const sockaddr* /*address*/, socklen_t /*length*/) {
  nimbus::fuzz::check_frame({static_cast<const std::uint8_t*>(bytes), size});
  return static_cast<ssize_t>(size);
}

}  // extern "C"
