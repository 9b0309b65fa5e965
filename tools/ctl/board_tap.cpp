#include "tools/ctl/board_tap.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <array>

#include "net/sources.h"

namespace nimbus::ctl {
namespace {

/// Both kinds of datagrams and no others: the kernel drops video before it comes here. Offsets are
/// those of RFC 791 and, behind its header, of RFC 768.
bool attach_filter(int socket, std::uint16_t port) {
  constexpr std::uint32_t kAll = 0xFFFF;
  std::array<sock_filter, 11> program{{
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 7),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x1FFF, 5, 0),  // behind the first fragment
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kDataPort, 3, 0),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, kAll),
  }};
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

bool listen_everywhere(int socket) {
  sockaddr_ll everywhere{};
  everywhere.sll_family = AF_PACKET;
  everywhere.sll_protocol = htons(ETHERTYPE_IP);
  return bind(socket, reinterpret_cast<const sockaddr*>(&everywhere), sizeof everywhere) == 0;
}

/// On the loopback interface everything passes twice: out, and in again.
bool passes_again(const sockaddr_ll& from) {
  return from.sll_hatype == ARPHRD_LOOPBACK && from.sll_pkttype == PACKET_OUTGOING;
}

}  // namespace

BoardTap::BoardTap(std::uint16_t port)
    : socket_(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  if (!socket_) return;
  if (!attach_filter(socket_.get(), port) || !listen_everywhere(socket_.get())) socket_ = {};
}

std::optional<sim::UdpDatagram> BoardTap::next() {
  std::array<std::uint8_t, 2048> packet;  // no command or frame is longer
  while (socket_) {
    sockaddr_ll from{};
    socklen_t size = sizeof from;
    const ssize_t got = recvfrom(socket_.get(), packet.data(), packet.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from), &size);
    if (got < 0) break;
    if (passes_again(from)) continue;
    const auto bytes = std::span(packet).first(static_cast<std::size_t>(got));
    if (auto datagram = reader_.take(bytes)) return datagram;
  }
  return {};
}

}  // namespace nimbus::ctl
