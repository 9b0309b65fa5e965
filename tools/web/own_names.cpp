#include "tools/web/own_names.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <unistd.h>

#include <array>
#include <memory>

namespace nimbus::web {

std::vector<std::string> own_names() {
  std::vector<std::string> names;
  std::array<char, 256> own{};
  if (gethostname(own.data(), own.size() - 1) == 0 && own[0] != '\0') {
    names.emplace_back(own.data());
    names.push_back(names.back() + ".local");
  }
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) return names;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> interfaces(first, freeifaddrs);
  for (const ifaddrs* one = first; one != nullptr; one = one->ifa_next) {
    if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET) continue;
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(one->ifa_addr)->sin_addr, text.data(),
              text.size());
    names.emplace_back(text.data());
  }
  return names;
}

}  // namespace nimbus::web
