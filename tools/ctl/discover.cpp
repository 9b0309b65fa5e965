#include "tools/ctl/discover.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "base/unique_fd.h"
#include "tools/common/failure.h"
#include "tools/common/udp_socket.h"
#include "tools/ctl/interrupt.h"
#include "tools/ctl/json.h"
#include "tools/ctl/output.h"

namespace nimbus::ctl {
namespace {

using std::chrono::milliseconds;

// Answers are held back for up to 120 ms, so that not all come at once.
constexpr double kPatience = 1;  // seconds
// Radio loses multicasts more often than others: the question is asked again.
constexpr milliseconds kAgain{300};
constexpr milliseconds kLongestWait{100};  // how soon a signal that came at a bad moment is seen
constexpr std::size_t kMostBoards = 64;    // one that makes them up gets no more
constexpr std::size_t kLargestAnswer = 9000;

sockaddr_in address_of(std::uint32_t address, std::uint16_t port) {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(address);
  place.sin_port = htons(port);
  return place;
}

/// The question and its answers, on all networks of this machine.
class Search {
 public:
  Search() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    constexpr int kHops = 255;  // the RFC wants it; what is multicast so is not passed on anyhow
    setsockopt(socket_.get(), IPPROTO_IP, IP_MULTICAST_TTL, &kHops, sizeof kHops);
  }

  /// How many networks the question went to.
  [[nodiscard]] int ask() const {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return 0;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
    int asked = 0;
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
      constexpr unsigned kNeeded = IFF_UP | IFF_MULTICAST;
      const bool fits = one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET &&
                        (one->ifa_flags & kNeeded) == kNeeded;
      if (fits && ask_through(*reinterpret_cast<const sockaddr_in*>(one->ifa_addr))) ++asked;
    }
    return asked;
  }

  /// Waits for one answer.
  void take(milliseconds wait) {
    pollfd readable{socket_.get(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(wait.count())) <= 0) return;
    std::array<std::uint8_t, kLargestAnswer> buffer;
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t got = recvfrom(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&from), &size);
    if (got < 0 || ntohs(from.sin_port) != kMdnsPort) return;
    const auto answer = std::span(buffer).first(static_cast<std::size_t>(got));
    for (Board& board : boards_of(answer, id_, ntohl(from.sin_addr.s_addr))) add(std::move(board));
  }

  std::vector<Board> boards() { return std::move(boards_); }

 private:
  [[nodiscard]] bool ask_through(const sockaddr_in& own) const {
    const auto query = board_query(id_);
    const sockaddr_in group = address_of(kMdnsGroup, kMdnsPort);
    setsockopt(socket_.get(), IPPROTO_IP, IP_MULTICAST_IF, &own.sin_addr, sizeof own.sin_addr);
    return sendto(socket_.get(), query.data(), query.size(), 0,
                  reinterpret_cast<const sockaddr*>(&group), sizeof group) > 0;
  }

  /// A board in two networks answers in both.
  void add(Board board) {
    const bool known = std::ranges::any_of(boards_, [&board](const Board& one) {
      return one.name == board.name && one.host == board.host && one.port == board.port;
    });
    if (!known && boards_.size() < kMostBoards) boards_.push_back(std::move(board));
  }

  UniqueFd socket_;
  std::uint16_t id_ = static_cast<std::uint16_t>(std::random_device{}());
  std::vector<Board> boards_;
};

std::vector<Board> find_boards(double seconds) {
  Search search;
  if (search.ask() == 0) return {};
  const auto end = end_after(seconds);
  auto again = Clock::now() + kAgain;
  while (!interrupted() && Clock::now() < end) {
    const auto until = std::min({end, again, Clock::now() + kLongestWait});
    search.take(std::max(std::chrono::ceil<milliseconds>(until - Clock::now()), milliseconds{0}));
    if (Clock::now() < again) continue;
    again = Clock::time_point::max();
    (void)search.ask();
  }
  auto boards = search.boards();
  std::ranges::sort(boards, {}, &Board::name);
  return boards;
}

std::string place_of(const Board& board) {
  return tools::dotted(board.address) + ":" + std::to_string(board.port);
}

void print(const Board& board, bool json) {
  if (!json) return print_line(place_of(board) + "  " + board.name + " (" + board.host + ")");
  const Json object = empty_object();
  add_text(object.get(), "name", board.name);
  add_text(object.get(), "host", board.host);
  add_text(object.get(), "address", tools::dotted(board.address));
  cJSON_AddNumberToObject(object.get(), "port", board.port);
  print_line(line_of(object.get()));
}

}  // namespace

void discover(double seconds, bool json) {
  const auto boards = find_boards(seconds > 0 ? seconds : kPatience);
  if (boards.empty() && !interrupted()) {
    throw tools::Failure(
        "no board answers; expected one on this network whose avahi-daemon announces it");
  }
  for (const Board& board : boards) print(board, json);
}

std::optional<Place> only_board() {
  const auto boards = find_boards(kPatience);
  if (boards.empty()) return {};
  if (boards.size() > 1) {
    std::string list;
    for (const Board& board : boards) {
      list += (list.empty() ? "" : ", ") + place_of(board) + " (" + shown(board.name) + ")";
    }
    throw tools::Failure("no service on this machine, and several on the network: " + list +
                         "; expected --host with one of them");
  }
  const Board& board = boards.front();
  std::fprintf(stderr, "nimbusctl: no service on this machine; taking %s (%s)\n",
               place_of(board).c_str(), shown(board.name).c_str());
  return Place{tools::dotted(board.address), board.port};
}

}  // namespace nimbus::ctl
