#include "config/interfaces.h"

#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

namespace nimbus {
namespace {

/// The system's interface addresses. Null when they cannot be read.
using InterfaceList = std::unique_ptr<ifaddrs, decltype([](ifaddrs* list) { freeifaddrs(list); })>;

InterfaceList list_interfaces() {
  ifaddrs* list = nullptr;
  return InterfaceList(getifaddrs(&list) == 0 ? list : nullptr);
}

using HostText = std::array<char, NI_MAXHOST>;

/// The numeric text of an entry's IPv4 address, if it has one.
std::optional<HostText> ipv4_text(const ifaddrs& entry) {
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return {};
  HostText text;
  if (getnameinfo(entry.ifa_addr, sizeof(sockaddr_in), text.data(), text.size(), nullptr, 0,
                  NI_NUMERICHOST) != 0) {
    return {};
  }
  return text;
}

}  // namespace

void iface_list_json(TextBuilder& list) noexcept {
  const InterfaceList interfaces = list_interfaces();
  bool first = true;
  for (const ifaddrs* entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
    const auto address = ipv4_text(*entry);
    if (!address || std::string_view(entry->ifa_name) == "lo") continue;
    std::array<char, 128> item;
    const TextBuilder text = TextBuilder(item)
                                 .add(first ? "" : ",")
                                 .add("{\"name\":\"")
                                 .add(entry->ifa_name)
                                 .add("\",\"addr\":\"")
                                 .add(address->data())
                                 .add("\"}");
    if (text.view().size() > list.room()) break;
    list.add(text.view());
    first = false;
  }
}

void iface_address(const char* iface, std::span<char> address) noexcept {
  const InterfaceList interfaces = list_interfaces();
  for (const ifaddrs* entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
    if (std::strcmp(entry->ifa_name, iface) != 0) continue;
    if (const auto text = ipv4_text(*entry)) {
      if (!address.empty()) TextBuilder(address).add(text->data());
      return;
    }
  }
}

}  // namespace nimbus
