#include "tools/common/udp_socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tools/common/failure.h"

namespace nimbus::tools {
namespace {

struct AddressList {
  addrinfo* first = nullptr;
  AddressList(const AddressList&) = delete;
  AddressList& operator=(const AddressList&) = delete;
  AddressList(const std::string& host, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &first) != 0) {
      throw Failure("no host '" + host + "'; expected a name or an IPv4 address");
    }
  }
  ~AddressList() { freeaddrinfo(first); }
};

Endpoint endpoint(int (*name)(int, sockaddr*, socklen_t*), int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (name(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

}  // namespace

std::string dotted(std::uint32_t address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  const in_addr place{htonl(address)};
  inet_ntop(AF_INET, &place, text.data(), text.size());
  return text.data();
}

UdpSocket::UdpSocket(const std::string& host, std::uint16_t port)
    : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  const AddressList addresses(host, port);
  if (!socket_ ||
      connect(socket_.get(), addresses.first->ai_addr, addresses.first->ai_addrlen) != 0) {
    throw Failure("cannot reach " + host + ": " + std::strerror(errno));
  }
}

bool UdpSocket::send(std::span<const std::uint8_t> datagram) {
  if (::send(socket_.get(), datagram.data(), datagram.size(), 0) >= 0) return true;
  if (errno == ECONNREFUSED) return false;
  throw Failure(std::string("cannot send: ") + std::strerror(errno));
}

std::optional<std::span<std::uint8_t>> UdpSocket::receive(std::span<std::uint8_t> buffer,
                                                          std::chrono::milliseconds wait) {
  pollfd readable{socket_.get(), POLLIN, 0};
  if (poll(&readable, 1, static_cast<int>(wait.count())) <= 0) return std::nullopt;
  const ssize_t size = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (size < 0) return std::nullopt;
  return buffer.first(static_cast<std::size_t>(size));
}

void UdpSocket::hold_bursts() {
  constexpr int kQueueBytes = 4 * 1024 * 1024;
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &kQueueBytes, sizeof(kQueueBytes));
}

Endpoint UdpSocket::local() const { return endpoint(getsockname, socket_.get()); }
Endpoint UdpSocket::peer() const { return endpoint(getpeername, socket_.get()); }

}  // namespace nimbus::tools
