#include "config/interfaces.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/unit/board_tools.h"

namespace nimbus {
namespace {

void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

/// An interface of the sandbox's own network.
class Interface {
 public:
  Interface(const std::string& name, const std::vector<std::string>& addresses) : name_(name) {
    run("ip link add " + name + " type bridge");
    for (const auto& address : addresses) run("ip addr add " + address + " dev " + name);
    run("ip link set " + name + " up");
  }
  Interface(const Interface&) = delete;
  Interface& operator=(const Interface&) = delete;
  ~Interface() { run("ip link del " + name_); }

 private:
  std::string name_;
};

std::string interface_list(std::size_t size = 1024) {
  std::vector<char> buffer(size);
  TextBuilder list(buffer);
  iface_list_json(list);
  return std::string(list.view());
}

std::string address_of(const char* iface, std::size_t size = 64) {
  std::string buffer(size, '#');
  iface_address(iface, buffer);
  return buffer.substr(0, buffer.find('\0'));
}

TEST(Interfaces, LoopbackIsNotListed) { EXPECT_EQ(interface_list(), ""); }

TEST(Interfaces, AreListedInTheSystemsOrder) {
  const Interface wired("eth7", {"192.168.1.5/24"});
  const Interface bare("bare0", {});
  const Interface wifi("wlan0", {"10.0.0.1/8", "10.0.0.2/8"});
  EXPECT_EQ(interface_list(),
            R"({"name":"eth7","addr":"192.168.1.5"},)"
            R"({"name":"wlan0","addr":"10.0.0.1"},{"name":"wlan0","addr":"10.0.0.2"})");
}

TEST(Interfaces, AnItemThatDoesNotFitIsLeftOut) {
  const Interface wired("eth7", {"192.168.1.5/24", "192.168.1.6/24"});
  const std::string one = R"({"name":"eth7","addr":"192.168.1.5"})";
  const std::string both = one + R"(,{"name":"eth7","addr":"192.168.1.6"})";
  EXPECT_EQ(interface_list(both.size() + 1), both);
  EXPECT_EQ(interface_list(both.size()), one);
  EXPECT_EQ(interface_list(one.size() + 1), one);
  EXPECT_EQ(interface_list(one.size()), "");
  EXPECT_EQ(interface_list(1), "");
}

TEST(Interfaces, AddressIsTheFirst) {
  const Interface wired("eth7", {"192.168.1.5/24", "192.168.1.6/24"});
  const Interface bare("bare0", {});
  EXPECT_EQ(address_of("eth7"), "192.168.1.5");
  EXPECT_EQ(address_of("lo"), "127.0.0.1");
  const std::string untouched(64, '#');
  for (const char* const name : {"bare0", "eth", "eth70", "ETH7", "", "none"}) {
    EXPECT_EQ(address_of(name), untouched) << name;
  }
}

TEST(Interfaces, AddressIsCutToTheBuffer) {
  EXPECT_EQ(address_of("lo", 10), "127.0.0.1");
  EXPECT_EQ(address_of("lo", 9), "127.0.0.");
  EXPECT_EQ(address_of("lo", 1), "");
  EXPECT_EQ(address_of("lo", 0), "");
}

TEST(Interfaces, WithoutTheSystemsListThereAreNone) {
  const Interface wired("eth7", {"192.168.1.5/24"});
  const test::NoDescriptors none;
  EXPECT_EQ(interface_list(), "");
  EXPECT_EQ(address_of("eth7", 4), "####");
}

}  // namespace
}  // namespace nimbus
